# The kernel's industrial-I/O devices, by a driver of the kernel's own for tests: a step counter and the likelihood of
# activities, whose values are written where another driver has its chip.

devices=/sys/kernel/config/iio/devices/dummy
rules=/run/udev/rules.d/99-watch.rules

setting=$'[sensors]\npedometer=iio\nactivity=iio\n[iio]\nperiod_ms=500'

plug() {
    mkdir "$devices/$1"
    udevadm settle
    for device in /sys/bus/iio/devices/iio:device*; do
        [ "$(cat "$device/name")" != "$1" ] || return 0
    done
    fail "no device $1"
}
set_up() {
    # As the page on systemd has it.
    mkdir -p /run/udev/rules.d
    sed -nE 's/^ +(SUBSYSTEM=="iio".*)/\1/p' systemd.md >$rules
    [ -s $rules ]
    udevadm control --reload
    modprobe -a iio_dummy
    mountpoint -q /sys/kernel/config || mount -t configfs configfs /sys/kernel/config
    unplug_all
    plug watch
}
unplug_all() { rmdir "$devices"/* 2>/dev/null || true; }
tear_down() {
    unplug_all
    rm -f $rules
}
counts() { echo "$1" >"$device/in_steps_input"; }

test_udev_switches_the_counter_on() {
    set_up
    expect_equal "the switch" "$(cat "$device/in_steps_en")" 1
    configure <<<"$setting"
    ask steps
    logged 'in_steps_input is read from .*\(watch\)'
    refused logged 'cannot switch on'
}

test_steps_reach_the_phone() {
    local before
    set_up
    counts 4000
    configure <<<"$setting"
    before=$(ask steps)
    counts 4242
    eventually 20 stores $((before + 242))
}

test_counter_that_is_reset_goes_on() {
    local before
    set_up
    counts 500
    configure <<<"$setting"
    before=$(ask steps)
    counts 600
    eventually 20 stores $((before + 100))
    counts 0
    eventually 20 logged 'has gone back from 600 to 0'
    counts 30
    # Each reading adds the steps since the subscription, which are 130 now.
    eventually 20 stores $((before + 230))
}

test_device_unplugged_and_back_goes_on() {
    local before
    set_up
    counts 100
    configure <<<"$setting"
    before=$(ask steps)
    counts 150
    eventually 20 stores $((before + 50))
    rmdir $devices/watch
    eventually 20 logged 'no device (named .watch. )?has in_steps_input|in_steps_input has gone'
    expect_equal "the service meanwhile" "$(property StatusText)" Serving
    plug watch
    eventually 20 logged_twice 'in_steps_input is read from'
    # The driver begins with 47 steps, which count nothing.
    eventually 20 logged 'has gone back from 150 to 47'
    counts 77
    eventually 20 stores $((before + 130))
}
logged_twice() { [ "$(journal | grep -c "$1")" -ge 2 ]; }

test_device_under_another_number_is_the_same() {
    local before first
    set_up
    counts 100
    configure <<<"$setting"$'\ndevice=watch'
    before=$(ask steps)
    counts 110
    eventually 20 stores $((before + 10))
    first=$device
    rmdir $devices/watch
    eventually 20 logged 'no device (named .watch. )?has in_steps_input|in_steps_input has gone'
    plug other # takes the number
    plug watch
    [ "$device" != "$first" ]
    eventually 20 logged "is read from $device"
    eventually 20 logged 'has gone back from 110 to 47'
    counts 52
    eventually 20 stores $((before + 25))
}

test_activity_is_the_likeliest() {
    set_up
    configure <<<"$setting"
    parvane-host watch activity --for 60 >activities &
    eventually 20 logged 'in_activity_.* is read from'
    echo 10 >"$device/in_activity_running_input"
    echo 80 >"$device/in_activity_walking_input"
    eventually 20 grep walking activities
    echo 90 >"$device/in_activity_running_input"
    eventually 20 grep running activities
}

test_polling_costs_what_it_must() {
    local before after
    set_up
    configure <<<$'[sensors]\npedometer=iio\n[iio]\nperiod_ms=1000'
    ask steps
    sleep 2
    before=$(wake_ups)
    sleep 10
    after=$(wake_ups)
    echo "$((after - before)) wake-ups in 10 s"
    [ $((after - before)) -le 14 ]
}
wake_ups() { cat "/proc/$(property MainPID)/task"/*/status | awk '/^voluntary_ctxt_switches/ { sum += $2 } END { print sum }'; }
