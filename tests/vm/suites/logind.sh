# Sleep: the inhibitor of a measurement under logind and polkit, and suspending to idle in the middle of everything.

inhibits() {
    busctl call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ListInhibitors |
        grep -E '"sleep:idle" "Parvane" "[^"]*" "block"' >/dev/null
}
setting=$'[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n[power]\nlock=logind'
slept() { journalctl -b --no-pager --after-cursor="$cursor" | grep -c 'PM: suspend exit' || true; }

# logind and polkit are awake, and grant the service's user what it asks for: the service itself waits for no more than
# half a second, which an emulated machine exceeds at the first time.
warm_up() { eventually 30 runuser -u parvane -- systemd-inhibit --what=sleep:idle --mode=block true; }

# The power button wakes the machine, and shall do nothing else.
button() {
    modprobe -a button evdev
    mkdir -p /run/systemd/logind.conf.d
    printf '[Login]\nHandlePowerKey=ignore\n' >/run/systemd/logind.conf.d/vm.conf
    systemctl restart systemd-logind
    warm_up
}
# Sleeps for some seconds: doze SECONDS
doze() {
    local before
    before=$(slept)
    echo "@@monitor $1 system_powerdown" >/dev/console
    systemctl suspend -i
    eventually 60 woke "$before"
}
woke() { [ "$(slept)" -gt "$1" ]; }

test_measurement_keeps_the_machine_awake() {
    warm_up
    configure <<<"$setting"
    parvane-watch set hr 66
    refused inhibits
    parvane-host measure hr >beats &
    eventually 10 inhibits
    refused systemctl suspend --check-inhibitors=yes
    expect_equal "sleeps" "$(slept)" 0
    wait $!
    grep '66 bpm' beats
    eventually 10 gone
    refused logged 'no inhibitor from logind'
}
gone() { ! inhibits; }

test_sleep_in_the_middle_loses_nothing() {
    local first before
    button
    configure <<<"$setting"
    first=$(property MainPID)
    parvane-watch set hr 66
    before=$(ask steps)
    parvane-host --timeout 60 measure hr >beats &
    measurement=$!
    eventually 10 inhibits
    doze 8
    wait "$measurement"
    grep '66 bpm' beats
    parvane-watch steps +5
    eventually 20 stores $((before + 5))
    eventually 20 gone
    expect_equal "its process" "$(property MainPID) $(property NRestarts)" "$first 0"
}

test_link_and_pushes_go_on_after_sleep() {
    local before
    button
    configure <<<"$setting"
    before=$(ask steps)
    parvane-host --json watch steps --for 120 >pushes 2>watch.log &
    eventually 20 test -s pushes
    parvane-watch steps +3
    doze 5
    parvane-watch steps +4
    eventually 20 stores $((before + 10))
    eventually 20 grep -E "\"value\": ?$((before + 10))" pushes
}

test_logind_restarted_in_a_measurement() {
    configure <<<"$setting"
    parvane-watch set hr 66
    parvane-host measure hr >beats &
    eventually 10 inhibits
    systemctl restart systemd-logind
    wait $!
    grep '66 bpm' beats
    warm_up
    parvane-host measure hr >beats &
    eventually 10 inhibits
    wait $!
}
