# limit=400
# The gateway over Bluetooth: the watch on the first virtual controller, phones on the others. Each phone is a
# parvane-vm-central, and parvane-host asks through its socket what it asks the watch itself elsewhere.

. suites/bluez.sh

# The watch's end, with PHONES controllers beside its own: set_up PHONES [KEY=VALUE of the gateway's Bluetooth]
set_up() {
    # As the page on transports has it: BlueZ keeps no order among several channels.
    main_conf Channels 1
    controllers $(($1 + 1))
    configure <<<$'[sensors]\npedometer=manual\nheart_rate=manual\n[link]\nallow=parvane-gateway'
    printf '[bluetooth]\nadapter=hci0\n%s\n[web]\nenabled=no\n' "${2:-}" >/etc/parvane/gateway.conf
    systemctl reset-failed parvane-gateway 2>/dev/null || true
    systemctl restart parvane-gateway
    eventually 60 gateway_says 'advertised on hci0'
}
tear_down() {
    jobs -p | xargs -r kill
    systemctl stop parvane-gateway bluetooth
    rm -rf /var/lib/bluetooth/*
    sed -i '/^ExchangeMTU/d; /^Channels/d' /etc/bluetooth/main.conf
    tail -n 50 phone*.log pair.log
    rm -f phone*.log pair.log
}
gateway_says() { journalctl -u parvane-gateway --no-pager -o cat --cursor="$cursor" | grep -E -- "$1"; }
# How often: gateway_has_said N TEXT
gateway_has_said() { [ "$(gateway_says "$2" | wc -l)" -ge "$1" ]; }
# In BlueZ's configuration, from its next start on: main_conf KEY VALUE
main_conf() { sed -i "/^$1/d; s/^\[GATT\]/&\n$1 = $2/" /etc/bluetooth/main.conf; }
bluetooth_anew() {
    local number
    systemctl restart bluetooth
    eventually 60 adapters "$1"
    for ((number = 0; number < $1; number++)); do eventually 20 powered "hci$number" true; done
}

# A phone on hciN, which stays and comes back: phone N [OPTIONS]
phone() {
    bin/parvane-vm-central "${@:2}" "hci$1" "air$1" >"phone$1.log" 2>&1 &
    phone=$!
}
phone_says() { grep -E -- "$2" "phone$1.log"; }
# The phone has joined so many times: joined N [TIMES]
joined() { [ "$(grep -c '^connected' "phone$1.log")" -ge "${2:-1}" ]; }
# A person at the watch who says yes to everybody: pair [OPTIONS]
pair() {
    : >pair.log
    while sleep 1; do echo yes; done 2>/dev/null | parvane-gateway pair --for 300s "$@" >>pair.log 2>&1 &
    eventually 60 grep 'A phone may pair' pair.log
}
# Phone N: pair_and_join N [OPTIONS]
pair_and_join() {
    pair
    phone "$@"
    eventually 120 joined "$1"
    eventually 20 grep 'Paired with' pair.log
}
# What a phone measures: through N SENSOR
through() {
    parvane-host --socket "air$1" --timeout 60 --json measure "$2" >through.log || { cat through.log && return 1; }
    sed -nE 's/.*"value": *(-?[0-9]+).*/\1/p' through.log | tail -n 1
}
answers() { [ -n "$(through "$1" steps)" ]; }

test_phone_pairs_and_asks() {
    set_up 1
    pair_and_join 1
    # Both sides have shown a person the same number.
    expect_equal "the phone's number" "$(sed -n 's/^shows //p' phone1.log)" \
        "$(sed -nE 's/^Does .* show ([0-9]{6})\?.*/\1/p' pair.log)"
    phone_says 1 'MTU 517'
    parvane-host --socket air1 list | grep "$(cat /var/lib/parvane/bluetooth-address)"
    parvane-watch set hr 71
    expect_equal "the heart rate" "$(through 1 hr)" 71
}

test_phone_follows_the_steps() {
    local before
    set_up 1
    pair_and_join 1 --commands
    before=$(through 1 steps)
    parvane-host --socket air1 --json watch steps >followed &
    eventually 30 test -s followed
    parvane-watch steps +12
    eventually 30 grep -E "\"value\": ?$((before + 12))\b" followed
}

test_unpaired_phone_gets_nowhere() {
    set_up 1
    phone 1 --no-pairing
    eventually 120 phone_says 1 '^WriteValue: '
    refused gateway_says 'is connected'
    refused grep -r LongTermKey /var/lib/bluetooth
}

test_bond_without_a_number_is_not_authenticated() {
    set_up 1 authenticated=yes
    pair --yes
    phone 1
    eventually 120 phone_says 1 '^paired'
    eventually 120 phone_says 1 '^(AcquireNotify|WriteValue): '
    refused gateway_says 'is connected'
    refused joined 1
}

test_bond_by_a_number_is_authenticated() {
    set_up 1 authenticated=yes
    pair_and_join 1
    answers 1
}

test_second_phone_waits_its_turn() {
    set_up 2
    pair_and_join 1
    powered hci1 false
    eventually 60 gateway_has_said 2 'advertised on hci0'
    pair_and_join 2
    powered hci1 true
    # The first one finds nobody meanwhile.
    : >phone1.log
    eventually 120 phone_says 1 '^(Connect|no watch)'
    refused joined 1
    answers 2
    powered hci2 false
    eventually 180 joined 1
    answers 1
}

test_mtu_of_23_is_refused_and_a_small_one_is_enough() {
    local watch
    # BlueZ takes no less than this.
    main_conf ExchangeMTU 48
    set_up 1
    pair_and_join 1
    phone_says 1 'MTU 48'
    for lists in 1 2 3 4 5 6 7 8 9 10; do parvane-host --socket air1 list >"list$lists"; done
    grep 'Bluetooth address' list1
    # The phone's bond is used by a program that exchanges no MTU.
    kill "$phone"
    watch=$(address hci0)
    busctl call org.bluez "/org/bluez/hci1/dev_${watch//:/_}" org.bluez.Device1 Disconnect
    eventually 60 gateway_has_said 2 'advertised on hci0'
    eventually 60 writes_with_23 "$watch"
    eventually 20 gateway_says 'is refused: the MTU of its connection is too small'
}
# Until the watch has been found, and has answered: writes_with_23 ADDRESS
writes_with_23() {
    local options=(-i hci1 -b "$1" --sec-level=medium) handle
    handle=$(timeout 30 gatttool "${options[@]}" --characteristics --uuid=6a1c0002-5b0e-4f0c-9d5a-7f1d2c8e43b7 |
        sed -nE 's/.*char value handle = (0x[0-9a-f]+).*/\1/p')
    [ -n "$handle" ] || return 1
    timeout 30 gatttool "${options[@]}" --char-write-req -a "$handle" -n 14000001 >written 2>&1 || true
    cat written
    gateway_says 'is refused'
}

test_phone_out_of_reach_comes_back() {
    set_up 1
    pair_and_join 1
    powered hci1 false
    eventually 60 gateway_says 'has gone'
    eventually 60 gateway_has_said 2 'advertised on hci0'
    powered hci1 true
    eventually 120 joined 1 2
    answers 1
}

test_sleep_in_between_goes_on() {
    button
    set_up 1
    pair_and_join 1
    answers 1
    doze 6
    eventually 120 answers 1
    eventually 120 through_counts 7
}
# Steps that come now are heard at the phone.
through_counts() {
    local before
    before=$(through 1 steps) && parvane-watch steps "+$1" && [ "$(through 1 steps)" -gt "$before" ]
}

test_bluetoothd_restarted_goes_on() {
    set_up 1
    pair_and_join 1
    bluetooth_anew 2
    eventually 60 gateway_has_said 2 'advertised on hci0'
    eventually 120 joined 1 2
    answers 1
}

test_watch_service_restarted_is_told() {
    set_up 1
    pair_and_join 1
    systemctl restart parvane
    eventually 60 gateway_says 'the watch service has closed the link'
    eventually 120 joined 1 2
    answers 1
}

test_gateway_killed_comes_back() {
    set_up 1
    pair_and_join 1
    systemctl kill -s KILL parvane-gateway
    eventually 60 gateway_has_said 2 'advertised on hci0'
    eventually 120 joined 1 2
    answers 1
}
