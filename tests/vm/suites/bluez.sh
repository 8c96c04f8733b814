# limit=400
# BlueZ with virtual low-energy controllers: the watch on the first, heart-rate straps on the others.

. suites/logind.sh

setting=$'[sensors]\nheart_rate=ble\n[ble]\nadapter=hci0\n[bluetooth]\nadapter=bluez\nname=hci0'
straps=0

adapters() { [ "$(busctl --list tree org.bluez 2>/dev/null | grep -cE '^/org/bluez/hci[0-9]+$')" -ge "$1" ]; }
powered() { busctl set-property org.bluez "/org/bluez/$1" org.bluez.Adapter1 Powered b "$2"; }
# The watch's controller and those of straps, on: controllers N
controllers() {
    local number
    # It is advertised by whichever controller has power first, a strap's as well.
    systemctl stop parvane-gateway 2>/dev/null || true
    modprobe -a hci_vhci algif_hash algif_skcipher ecb cmac ecdh_generic
    systemctl start bluetooth
    btvirt -L "-l$1" >btvirt.log 2>&1 &
    btvirt=$!
    eventually 40 adapters "$1"
    for ((number = 0; number < $1; number++)); do eventually 20 powered "hci$number" true; done
}
# Straps that beat with 72 and 95, on hci1 and hci2: set_up STRAPS [FLAG]
set_up() {
    controllers $(($1 + 1))
    for ((straps = 1; straps <= $1; straps++)); do
        echo $((49 + 23 * straps)) >"rate$straps"
        bin/parvane-vm-strap "hci$straps" "Strap $straps" "rate$straps" "${2:-notify}" >"strap$straps.log" 2>&1 &
        eventually 30 grep '^RegisterAdvertisement done' "strap$straps.log"
    done
}
tear_down() {
    jobs -p | xargs -r kill
    systemctl stop bluetooth
    rm -rf /var/lib/bluetooth/*
    tail -n 50 strap*.log
    rm -f strap*.log
}
# Of an adapter, and of the strap that the watch sees there: address hci1, strap hci1
address() { busctl get-property org.bluez "/org/bluez/$1" org.bluez.Adapter1 Address | cut -d'"' -f2; }
strap() { address "$1" | sed 's,:,_,g; s,^,/org/bluez/hci0/dev_,'; }

# A strap's battery is empty: vanish N. It is back when its file has a rate again.
vanish() {
    echo gone >"rate$1"
    eventually 30 grep '^UnregisterAdvertisement done' "strap$1.log"
    busctl call org.bluez "/org/bluez/hci$1/dev_$(address hci0 | tr : _)" org.bluez.Device1 Disconnect
    eventually 40 logged 'strap .* is lost'
}

# A reading of the heart, at the phone: beats N
beats() { [ "$(ask hr)" = "$1" ]; }
# The service listens from now on, whatever the phone asks; what it hears is in the file heard.
listen() {
    configure <<<"${1:-$setting}"
    : >heard # what an earlier case has heard is not looked at before the recorder has begun
    parvane-watch record --on hr - >>heard &
}
hears() { grep -E "^[0-9]+,($1)," heard >/dev/null; }

test_strap_is_found_and_measures() {
    set_up 1
    configure <<<"$setting"
    # Emulated, the first measurement may end before the strap is connected.
    eventually 90 beats 72
    logged 'ble: strap .* measures'
    # Nobody asks any more: notifications and connection end.
    eventually 30 grep StopNotify strap1.log
    eventually 30 unconnected
}
unconnected() { ! bluetoothctl devices Connected | grep Device; }

test_contact_lost_is_not_worn() {
    set_up 1
    listen
    eventually 90 hears 72
    # Without a reading the phone is told that it is not worn, too: that one comes is shown before and after.
    eventually 30 wear yes
    echo off >rate1
    eventually 30 hears -3
    eventually 30 wear no
    echo 74 >rate1
    eventually 30 hears 74
    eventually 30 wear yes
    refused logged 'strap .* is lost'
}
wear() { parvane-host measure wear | grep "$1"; }

test_strap_that_vanishes_and_returns_goes_on() {
    set_up 1
    listen
    eventually 90 hears 72
    vanish 1
    echo 81 >rate1
    eventually 90 hears 81
}

test_second_strap_takes_over() {
    local first other before
    set_up 2
    listen
    eventually 90 hears '72|95'
    first=1 other=95
    ! hears 95 || first=2 other=72
    vanish $first
    eventually 90 hears $other
    # It keeps that one when the first is back.
    echo 70 >rate$first
    eventually 30 advertises_again strap$first.log
    before=$(wc -l <heard)
    eventually 30 hears_since $((before + 5))
    tail -n +$((before + 1)) heard >since
    expect_equal "readings of the other alone" "$(grep -cE "^[0-9]+,$other," since)" "$(wc -l <since)"
}
hears_since() { [ "$(wc -l <heard)" -ge "$1" ]; }
advertises_again() { sed '1,/^UnregisterAdvertisement/d' "$1" | grep '^RegisterAdvertisement done'; }

test_named_strap_is_the_one() {
    set_up 2
    listen "${setting/adapter=hci0/adapter=hci0$'\n'device=$(address hci2)}"
    eventually 90 hears 95
    # The other one is near all the time.
    vanish 2
    sleep 5
    echo 96 >rate2
    eventually 90 hears 96
    refused hears 72
}

test_bonded_strap_measures_encrypted() {
    local device bond
    set_up 1 encrypt-notify
    device=$(strap hci1)
    # The search is the service's.
    listen
    eventually 60 bonded "$device"
    bond=$(grep -A1 -h LongTermKey /var/lib/bluetooth/*/*/info)
    eventually 90 hears 72
    # BlueZ remembers it while it is away, and after a restart of its own.
    vanish 1
    echo 81 >rate1
    eventually 120 hears 81
    systemctl restart bluetooth
    eventually 40 adapters 2
    eventually 20 powered hci0 true
    eventually 20 powered hci1 true
    echo 83 >rate1
    eventually 120 hears 83
    expect_equal "its bond" "$(grep -A1 -h LongTermKey /var/lib/bluetooth/*/*/info)" "$bond"
}

# Once it has been paired with: bonded DEVICE
bonded() {
    busctl --timeout=60 call org.bluez "$1" org.bluez.Device1 Pair || true
    [ "$(busctl get-property org.bluez "$1" org.bluez.Device1 Bonded)" = "b true" ]
}

test_bluetoothd_restarted_goes_on() {
    set_up 1
    listen
    eventually 90 hears 72
    systemctl restart bluetooth
    eventually 40 adapters 2
    eventually 20 powered hci0 true
    eventually 20 powered hci1 true
    echo 83 >rate1
    eventually 90 hears 83
}

test_sleep_in_between_goes_on() {
    button
    set_up 1
    listen
    eventually 90 hears 72
    doze 6
    echo 84 >rate1
    eventually 120 hears 84
}

test_controllers_unplugged_and_back_go_on() {
    set_up 1
    listen
    eventually 90 hears 72
    kill "$btvirt"
    eventually 30 test ! -e /sys/class/bluetooth/hci0
    eventually 30 logged 'strap .* is lost'
    expect_equal "the service meanwhile" "$(property StatusText)" Serving
    echo 85 >rate1
    controllers 2
    eventually 90 hears 85
    # The phone reads it, too.
    eventually 90 beats 85
}

test_address_in_the_list_is_the_adapters() {
    local address
    set_up 1
    configure <<<"$setting"
    address=$(address hci0)
    # The service waits for BlueZ half a second at most, which an emulated BlueZ may exceed.
    eventually 30 lists "$address"
    refused lists "$(address hci1)"
    powered hci0 false
    eventually 30 lists_none_of_one_without_power
    refused lists "$address"
}
lists() { parvane-host list | grep -i "$1"; }
lists_none_of_one_without_power() { parvane-host list >list && logged 'bluetooth: no address: .* is not powered'; }
