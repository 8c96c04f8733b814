# limit=400
# The gateway over Bluetooth: the watch on the first virtual controller, phones on the others. Each phone is a
# parvane-vm-central, and parvane-host asks through its socket what it asks the watch itself elsewhere.

. suites/bluez.sh

# The watch's end, with PHONES controllers beside its own: set_up PHONES [KEY=VALUE of the gateway's Bluetooth]
set_up() {
    local number
    controllers $(($1 + 1))
    # The emulated kernel fails at what pairing by Secure Connections computes. The command wants a standard input.
    for ((number = 0; number <= $1; number++)); do timeout 20 btmgmt --index "$number" sc off < <(sleep 20); done
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
    tail -n 50 phone*.log pair.log
    rm -f phone*.log pair.log
}
gateway_says() { journalctl -u parvane-gateway --no-pager -o cat --after-cursor="$cursor" | grep -E -- "$1"; }
# How often: gateway_has_said N TEXT
gateway_has_said() { [ "$(gateway_says "$2" | wc -l)" -ge "$1" ]; }

# A phone on hciN, which stays and comes back: phone N [OPTIONS]
phone() {
    bin/parvane-vm-central "${@:2}" "hci$1" "air$1" >"phone$1.log" 2>&1 &
}
# The phone has joined so many times: joined N [TIMES]
joined() { [ "$(grep -c '^connected' "phone$1.log")" -ge "${2:-1}" ]; }
# A person at the watch who says yes to everybody.
pair() {
    while sleep 1; do echo yes; done 2>/dev/null | parvane-gateway pair --for 120s >pair.log 2>&1 &
    eventually 60 grep 'A phone may pair' pair.log
}
pair_and_join() {
    pair
    phone 1 "$@"
    eventually 120 joined 1
    eventually 20 grep 'Paired with' pair.log
}
# What a phone measures: through N SENSOR
through() { parvane-host --socket "air$1" --json measure "$2" | sed -nE 's/.*"value": *(-?[0-9]+).*/\1/p' | tail -n 1; }

test_phone_pairs_and_asks() {
    set_up 1
    pair_and_join
    parvane-host --socket air1 list | grep 'Bluetooth address'
    [ -n "$(through 1 steps)" ]
}

test_unpaired_phone_gets_nowhere() {
    set_up 1
    phone 1 --no-pairing
    eventually 120 grep '^WriteValue' phone1.log
    sleep 5
    refused gateway_says 'is connected'
    refused grep -r LongTermKey /var/lib/bluetooth
}

test_phone_out_of_reach_comes_back() {
    set_up 1
    pair_and_join
    powered hci1 false
    eventually 60 gateway_says 'has gone'
    eventually 60 gateway_has_said 2 'advertised on hci0'
    powered hci1 true
    eventually 120 joined 1 2
    [ -n "$(through 1 steps)" ]
}

test_bluetoothd_restarted_goes_on() {
    set_up 1
    pair_and_join
    systemctl restart bluetooth
    eventually 60 adapters 2
    powered hci0 true
    powered hci1 true
    eventually 60 gateway_has_said 2 'advertised on hci0'
    eventually 120 joined 1 2
    [ -n "$(through 1 steps)" ]
}

test_watch_service_restarted_is_told() {
    set_up 1
    pair_and_join
    systemctl restart parvane
    eventually 60 gateway_says 'the watch service has closed the link'
    eventually 120 joined 1 2
    [ -n "$(through 1 steps)" ]
}
