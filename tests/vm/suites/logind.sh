# Sleep: the inhibitor of a measurement under logind and polkit, and suspending to idle in the middle of everything.

inhibits() {
    busctl call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ListInhibitors |
        grep -E '"sleep:idle" "Parvane" "[^"]*" "block"' >/dev/null
}
setting=$'[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n[power]\nlock=logind'
slept() { journalctl -b --no-pager --cursor="$cursor" | grep -c 'PM: suspend exit' || true; }

# logind and polkit are awake, and grant the service's user what it asks for: the service itself waits for no more than
# half a second, which an emulated machine exceeds at the first time.
warm_up() { eventually 30 runuser -u parvane -- systemd-inhibit --what=sleep:idle --mode=block true; }

# The power button wakes the machine, and shall do nothing else. Where it cannot, the clock does.
button() {
    [ "$(uname -m)" != x86_64 ] || modprobe -a button evdev
    mkdir -p /run/systemd/logind.conf.d
    printf '[Login]\nHandlePowerKey=ignore\n' >/run/systemd/logind.conf.d/vm.conf
    systemctl restart systemd-logind
    warm_up
}
# Sleeps for some seconds, until somebody presses the button: doze SECONDS
doze() {
    local before
    before=$(slept)
    if [ "$(uname -m)" = x86_64 ]; then
        echo "@@asleep $1" >/dev/console
    else
        rtcwake -m no -s $(($1 + 15))
    fi
    systemctl suspend -i
    eventually 60 woke "$before"
    echo "@@awake" >/dev/console
}
woke() { [ "$(slept)" -gt "$1" ]; }

# No inhibitor for any other reason than a bus or a logind that has not answered in time.
denied() { journal | grep 'no inhibitor from logind: ' | grep -vE ': (Timeout was reached|no system bus)$'; }
# Measures in the background until that inhibits sleep: the service waits for the bus and for logind half a second at
# most, which emulated ones may exceed; any other reason is a failure.
measure_awake() {
    local attempt
    for attempt in {1..10}; do
        warm_up
        parvane-host --timeout 120 measure hr >beats &
        measurement=$!
        while kill -0 $measurement 2>/dev/null; do
            ! inhibits || return 0
        done
        refused denied
    done
    fail "no measurement inhibits sleep"
}

test_measurement_keeps_the_machine_awake() {
    warm_up
    configure <<<"$setting"
    parvane-watch set hr 66
    refused inhibits
    measure_awake
    refused systemctl suspend --check-inhibitors=yes
    expect_equal "sleeps" "$(slept)" 0
    wait $measurement
    grep '66 bpm' beats
    eventually 10 gone
    refused denied
}
gone() { ! inhibits; }

test_sleep_in_the_middle_loses_nothing() {
    local first before
    button
    configure <<<"$setting"
    first=$(property MainPID)
    parvane-watch set hr 66
    before=$(ask steps)
    measure_awake
    doze 8
    wait $measurement
    grep '66 bpm' beats
    parvane-watch steps +5
    eventually 20 stores $((before + 5))
    eventually 20 gone
    expect_equal "its process" "$(property MainPID) $(property NRestarts)" "$first 0"
}

test_link_and_pushes_go_on_after_each_sleep() {
    local total steps
    button
    configure <<<"$setting"
    total=$(ask steps)
    parvane-host --json watch steps >pushes 2>watch.log &
    eventually 20 test -s pushes
    for steps in 1 2 3; do
        doze 4
        parvane-watch steps +1
        # Each reading adds the steps since the subscription.
        total=$((total + steps))
        eventually 20 grep -E "\"value\": ?$total\b" pushes
    done
    stores "$total"
}

test_logind_restarted_in_a_measurement() {
    configure <<<"$setting"
    parvane-watch set hr 66
    measure_awake
    systemctl restart systemd-logind
    wait $measurement
    grep '66 bpm' beats
    warm_up
    measure_awake
    wait $measurement
}
