# limit=240
# BlueZ with two virtual low-energy controllers: the watch on the first, a heart-rate strap on the second.

setting=$'[sensors]\nheart_rate=ble\n[ble]\nadapter=hci0\n[bluetooth]\nadapter=bluez\nname=hci0'

adapters() { [ "$(busctl --list tree org.bluez 2>/dev/null | grep -cE '^/org/bluez/hci[0-9]+$')" -ge "$1" ]; }
controllers() {
    modprobe -a hci_vhci algif_hash algif_skcipher ecb cmac ecdh_generic
    btvirt -L -l2 >btvirt.log 2>&1 &
    btvirt=$!
    eventually 30 test -e /sys/class/bluetooth/hci1
}
powered() { busctl set-property org.bluez "/org/bluez/$1" org.bluez.Adapter1 Powered b "$2"; }
set_up() {
    controllers
    systemctl start bluetooth
    eventually 40 adapters 2
    eventually 20 powered hci0 true
    eventually 20 powered hci1 true
    echo 72 >rate
    bin/parvane-vm-strap hci1 "First strap" rate >strap.log 2>&1 &
    strap=$!
    eventually 30 grep 'RegisterAdvertisement done' strap.log
}
tear_down() {
    kill "${strap:-}" "${btvirt:-}" 2>/dev/null
    systemctl stop bluetooth
    rm -rf /var/lib/bluetooth/*
    cat strap.log
}
# A reading of the heart, at the phone: beats N
beats() { [ "$(ask hr)" = "$1" ]; }

test_strap_is_found_and_measures() {
    set_up
    configure <<<"$setting"
    # Emulated, the first measurement may end before the strap is connected.
    eventually 90 beats 72
    logged 'ble: strap .* measures'
    # Nobody asks any more: notifications and connection end.
    eventually 30 grep StopNotify strap.log
    eventually 30 unconnected
}
unconnected() { ! bluetoothctl devices Connected | grep Device; }

test_bluetoothd_restarted_goes_on() {
    set_up
    configure <<<"$setting"
    parvane-host watch hr --for 230 >readings 2>/dev/null &
    eventually 90 grep '72 bpm' readings
    systemctl restart bluetooth
    eventually 40 adapters 2
    powered hci0 true
    powered hci1 true
    echo 83 >rate
    eventually 90 grep '83 bpm' readings
}

test_address_in_the_list_is_the_adapters() {
    local address
    set_up
    configure <<<"$setting"
    address=$(busctl get-property org.bluez /org/bluez/hci0 org.bluez.Adapter1 Address | tr -d '"' | cut -d' ' -f2)
    parvane-host list | grep -i "$address"
}
