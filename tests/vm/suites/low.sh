# What runs low: a battery of the kernel's driver for tests, under UPower and read from sysfs; and memory.

parameters=/sys/module/test_power/parameters

battery() {
    modprobe test_power
    echo off >$parameters/ac_online
    echo off >$parameters/usb_online
    echo discharging >$parameters/battery_status
    echo "$1" >$parameters/battery_capacity
}
upower_says() { upower -i /org/freedesktop/UPower/devices/DisplayDevice | grep -E "$1" >/dev/null; }
tear_down() {
    systemctl stop parvane-vm-filler 2>/dev/null
    echo 80 >$parameters/battery_capacity
    systemctl stop upower
}
ends_in_order() {
    eventually "$1" is ActiveState inactive
    expect_equal "its end" "$(property Result) $(property ExecMainStatus)" "success 0"
}

test_upower_battery_at_its_limit_ends_the_service() {
    battery 60
    systemctl restart upower
    eventually 20 upower_says 'percentage: +60%'
    configure <<<$'[battery]\nmonitor=upower'
    eventually 20 logged 'battery: watched by upower'
    sleep 3
    expect_equal "with 60 %" "$(property ActiveState)" active
    echo 8 >$parameters/battery_capacity
    ends_in_order 60
    logged 'battery: low, warning level [34]'
}

test_battery_low_already_at_the_start_ends_the_service() {
    battery 8
    systemctl restart upower
    eventually 20 upower_says 'warning-level: +(low|critical)'
    configure <<<$'[battery]\nmonitor=auto' || true
    ends_in_order 60
    logged 'battery: low'
}

test_charging_battery_does_not() {
    battery 8
    echo on >$parameters/ac_online
    echo charging >$parameters/battery_status
    systemctl restart upower
    configure <<<$'[battery]\nmonitor=upower'
    sleep 8
    expect_equal "on the charger" "$(property ActiveState)" active
    refused logged 'battery: low'
}

test_upower_that_comes_back_is_heard() {
    battery 60
    systemctl restart upower
    configure <<<$'[battery]\nmonitor=upower'
    systemctl stop upower
    eventually 20 logged 'UPower is not there'
    systemctl start upower
    eventually 30 logged 'UPower is there again'
    echo 8 >$parameters/battery_capacity
    ends_in_order 60
}

test_battery_from_sysfs_ends_the_service() {
    battery 60
    configure <<<$'[battery]\nmonitor=sysfs\nperiod_ms=1000\nlow_percent=15'
    sleep 3
    expect_equal "with 60 %" "$(property ActiveState)" active
    echo 14 >$parameters/battery_capacity
    ends_in_order 30
    logged 'battery: '
}

test_memory_that_is_filled_ends_the_service() {
    # The kernel is one before 6.5.
    mkdir -p $drop_ins
    cp "$(dirname "$(find /usr/share/doc -name memory-pressure.conf)")/memory-pressure.conf" $drop_ins
    systemctl daemon-reload
    configure <<<$'[memory]\nmonitor=pressure'
    refused logged 'memory: nothing here tells'
    sleep 3
    expect_equal "with memory" "$(property ActiveState)" active
    systemd-run --unit=parvane-vm-filler -p MemoryHigh=16M -p MemoryMax=64M -p MemorySwapMax=0 -p OOMPolicy=continue \
        sh -c 'while :; do tail /dev/zero; done'
    ends_in_order 60
    logged 'memory'
}

test_pressure_of_an_older_kernel_takes_more() {
    configure <<<$'[memory]\nmonitor=pressure'
    sleep 1
    expect_equal "without the drop-in" "$(property ActiveState)" active
    logged 'memory: '
}
