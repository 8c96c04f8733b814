# limit=200
# The hub of its package, and Debian's broker beside it, as a service of the system each.

. suites/systemd.sh
. suites/logind.sh
. suites/parts.sh
part parvane-hub

# The hub follows the watch of this machine, and a reader takes what the broker has for it, sooner or later.
set_up() {
    configure <<<$'[sensors]\npedometer=manual\n[link]\nallow=parvane-hub'
    printf '%s\n' '[watch anna]' heart_rate=no link=unix:/run/parvane/link.sock >$part_conf
    systemctl start mosquitto
    read_along
    anew
    eventually 30 linked
    eventually 30 published 0
}
read_along() { mosquitto_sub -i reader -c -q 1 -R -v -t 'parvane/#' >heard & }
tear_down() {
    parvane-hub status
    jobs -p | xargs -r kill
    part_down
    systemctl stop mosquitto
    parvane-gateway token remove ward
    rm -f /var/lib/mosquitto/mosquitto.db /etc/parvane/bed-1-token
    cat heard
    rm -f heard
}
linked() { parvane-hub status | grep '1 of 1 linked'; }
waiting() { parvane-hub status | grep "^queue *$1 messages"; }
published() { grep "/steps .*\"value\":$1," heard; }

walked=0
# Steps come, one by one: walk_to N
walk_to() {
    while [ $walked -lt "$1" ]; do
        walked=$((walked + 1))
        parvane-watch steps +1
    done
}
# All of them are published in their order, and no reading twice.
all_arrive() {
    eventually 60 published $walked
    expect_equal "the steps" "$(sed -nE 's/^.*\/steps .*"value":([0-9]+),.*/\1/p' heard | uniq | xargs)" "$(seq 0 $walked | xargs)"
    expect_equal "what came twice" "$(grep -o '"id":"[^"]*"' heard | sort | uniq -d)" ""
}

test_as_shipped_it_follows_nobody() {
    as_shipped
    cmp $part_conf /usr/share/doc/parvane/hub.conf.sample
    anew
    is_at_home
    parvane-hub status | grep 'watches    0 of 0 linked'
    exec 5<>/dev/tcp/127.0.0.1/8468
    printf 'GET /metrics HTTP/1.0\r\n\r\n' >&5
    grep 'parvane_hub_watches 0' <&5
    expect_equal "its exposure" "$(exposure $part)" 1.1
    # A broker that comes later is found, and is told of the end.
    systemctl start mosquitto
    read_along
    eventually 60 grep '^parvane/availability online' heard
    ends_in_order
    eventually 20 grep '^parvane/availability offline' heard
}

test_steps_of_the_page() {
    local lines
    configure <<<$'[sensors]\nheart_rate=manual\npedometer=manual'
    anew
    systemctl start mosquitto
    # The packages are installed already, and the last line has no end.
    lines=$(lines_of hub.md "As a system's service")
    eval "$(sed '1d; $d' <<<"$lines")"
    eventually 30 linked
    eval "exec $(tail -n 1 <<<"$lines")" >heard &
    parvane-watch set hr 72
    parvane-watch steps +5
    eventually 30 published 5
    mosquitto_sub -W 200 -C 1 -t parvane/anna/heart_rate | grep '"value":72,"unit":"bpm"'
    mosquitto_sub -W 20 -C 1 -t homeassistant/sensor/parvane_anna/steps/config | grep '"parvane/anna/steps"'
}

test_what_comes_while_all_restart_arrives_once_and_in_order() {
    set_up
    walk_to 2
    all_arrive
    systemctl stop mosquitto
    walk_to 5
    eventually 20 waiting 3
    systemctl kill -s KILL $part
    eventually 30 part_is NRestarts 1
    eventually 30 linked
    walk_to 6
    systemctl start mosquitto
    all_arrive
    systemctl restart parvane
    eventually 60 linked
    walk_to 7
    systemctl restart $part
    eventually 30 linked
    walk_to 8
    all_arrive
}

test_broker_killed_is_found_again() {
    set_up
    systemctl kill -s KILL mosquitto
    eventually 60 part_logged 'the broker is gone'
    walk_to 2
    # What the reader was to get has gone with the broker; what is retained has not.
    eventually 60 retained 2
}
retained() { mosquitto_sub -W 5 -C 1 -t parvane/anna/steps | grep "\"value\":$1,"; }

test_sleep_in_between_goes_on() {
    button
    set_up
    walk_to 1
    all_arrive
    doze 6
    eventually 60 linked
    walk_to 2
    all_arrive
}

test_frozen_it_is_restarted() {
    watched
    set_up
    freeze 1
    eventually 30 linked
    walk_to 1
    all_arrive
}

test_watch_elsewhere_by_the_steps_of_the_page() {
    local TOKEN FINGERPRINT lines
    configure <<<$'[sensors]\npedometer=manual\n[link]\nallow=parvane-gateway'
    systemctl restart parvane-gateway
    TOKEN=$(parvane-gateway token add ward | sed -n 's/^token *//p')
    FINGERPRINT=$(parvane-gateway status | sed -n 's/^fingerprint *SHA-256 //p')
    systemctl start mosquitto
    read_along
    anew
    # A machine without a network resolves no names.
    lines=$(lines_of hub.md 'A watch elsewhere')
    eval "${lines//bed-1.example/127.0.0.1}"
    eventually 30 linked
    eventually 30 published 0
    walk_to 2
    all_arrive
    systemctl restart parvane-gateway
    eventually 60 linked
    walk_to 3
    all_arrive
}

test_forbidden_is_what_must_be() {
    probe $part
    allows 'its own .*|a network socket'
}
