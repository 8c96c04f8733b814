# limit=200
# The gateway of its package over the network, which is the loopback address.

. suites/systemd.sh
. suites/logind.sh
. suites/parts.sh
part parvane-gateway
plain=ws://127.0.0.1:8467 secure=wss://localhost:8467

set_up() {
    configure <<<$'[sensors]\nheart_rate=manual\npedometer=manual\n[link]\nallow=parvane-gateway'
    anew
    token phone
}
tear_down() {
    jobs -p | xargs -r kill
    part_down
    cat follow.log followed
    rm -f follow.log followed
}
# A new token, for what follows: token NAME [OPTIONS]
token() {
    PARVANE_TOKEN=$(parvane-gateway token add "$@" | sed -n 's/^token *//p')
    export PARVANE_TOKEN
}
over() { parvane-host --link "$@"; }

# A phone that follows the steps.
follow() {
    # Not by a function, whose process would not be the one that tear_down ends.
    parvane-host --link $plain --json watch steps >followed 2>follow.log &
    eventually 30 test -s followed
}
heard() { sed -nE 's/.*"value": *([0-9]+).*/\1/p' followed | tail -n 1; }
walks_on() {
    parvane-watch steps +1
    [ "$(heard)" -gt "$1" ]
}
# Steps that come now are heard.
goes_on() { eventually 60 walks_on "$(heard)"; }

test_as_shipped_it_is_for_this_machine_and_lets_nobody_in() {
    as_shipped
    cmp $part_conf /usr/share/doc/parvane/gateway.conf.sample
    anew
    is_at_home
    # 8467 in hexadecimal, and the address as the kernel writes it.
    expect_equal "where it listens" "$(cat /proc/net/tcp /proc/net/tcp6 | awk '$4 == "0A" && $2 ~ /:2113$/ { print $2 }')" 0100007F:2113
    parvane-gateway status | grep '^phone *none'
    refused over $plain list
    PARVANE_TOKEN=0123456789012345678901234567890123456789012 refused over $plain list
    parvane-gateway status | grep refused
    expect_equal "its exposure" "$(exposure $part)" 1.1
    # A token is not enough as long as the watch service is not told of the gateway.
    token phone
    refused over $plain list
    parvane-gateway status | grep 'refused *1 the watch is away'
    ends_in_order
}

test_steps_of_the_page() {
    configure <<<$'[sensors]\nheart_rate=manual\npedometer=manual'
    anew
    eval "$(lines_of transports.md 'Over the network, step by step')" >said
    PARVANE_TOKEN=$(sed -n 's/^token *//p' said)
    export PARVANE_TOKEN
    over $plain list | grep 'Bluetooth address'
    parvane-watch set hr 71
    over $secure --fingerprint "$(sed -n 's/^fingerprint *SHA-256 //p' said)" measure hr | grep '71 bpm'
    refused over $secure list
    refused over $secure --fingerprint "$(printf '5A%.0s' {1..32})" list
    is_at_home
    # Who looks on is no phone, and who is removed is out, in the middle of following, too.
    eval "$(lines_of transports.md Tokens)" >said
    refused env PARVANE_TOKEN="$(sed -n 's/^token *//p' said | tail -n 1)" parvane-host --link $plain list
    PARVANE_TOKEN=$(awk '/^token/ { print $2; exit }' said)
    follow
    parvane-gateway token remove "Anna's phone"
    eventually 20 grep token follow.log
    refused over $plain list
}

test_restarts_on_both_sides_and_sleep_are_gone_through() {
    button
    set_up
    follow
    goes_on
    # One phone has the watch.
    refused over $plain list
    systemctl restart $part
    goes_on
    systemctl kill -s KILL $part
    eventually 30 part_is NRestarts 1
    goes_on
    systemctl restart parvane
    goes_on
    doze 6
    goes_on
    refused journalctl -u $part -p warning --no-pager -o cat --cursor="$cursor" -g 'cannot'
}

test_frozen_it_is_restarted() {
    watched
    set_up
    follow
    freeze 1
    goes_on
}

test_forbidden_is_what_must_be() {
    probe $part
    allows 'its own .*|a network socket'
}
