# Sleep: the inhibitor of a measurement under logind and polkit, and suspending to idle in the middle of everything.

inhibits() {
    busctl call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ListInhibitors |
        grep -E '"sleep:idle" "Parvane" "[^"]*" "block"' >/dev/null
}
setting=$'[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n[power]\nlock=logind'
slept() { journalctl -b --no-pager --cursor="$cursor" | grep -c 'PM: suspend exit' || true; }

# The power button wakes the machine, and shall do nothing else. Where it cannot, the clock does.
button() {
    [ "$(uname -m)" != x86_64 ] || modprobe -a button evdev
    mkdir -p /run/systemd/logind.conf.d
    printf '[Login]\nHandlePowerKey=ignore\n' >/run/systemd/logind.conf.d/vm.conf
    systemctl restart systemd-logind
}
# Sleeps until the machine is woken, some seconds after it has fallen asleep: doze SECONDS
doze() {
    local before later=$(($1 + 5)) watchdog
    before=$(slept)
    if [ "$(uname -m)" = x86_64 ]; then
        # What the machine's watchdog does when nobody feeds it is to press the button.
        modprobe i6300esb heartbeat=$later
        exec {watchdog}>/dev/watchdog0
    else
        rtcwake -m no -s $later
    fi
    systemctl suspend -i
    eventually 60 woke "$before"
    if [ -n "${watchdog:-}" ]; then
        echo V >&"$watchdog"
        exec {watchdog}>&-
        modprobe -r i6300esb
    fi
}
woke() { [ "$(slept)" -gt "$1" ]; }

# Measures in the background, and returns when that inhibits sleep. The service waits half a second for logind and what
# that asks, which must be awake for it: the first of their users waits longer.
measure_awake() {
    runuser -u parvane -- systemd-inhibit --what=sleep:idle --mode=block true
    parvane-host --timeout 120 measure hr >beats &
    measurement=$!
    eventually 10 inhibits
}

test_measurement_keeps_the_machine_awake() {
    configure <<<"$setting"
    parvane-watch set hr 66
    refused inhibits
    measure_awake
    refused systemctl suspend --check-inhibitors=yes
    expect_equal "sleeps" "$(slept)" 0
    wait $measurement
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
    measure_awake
    wait $measurement
}
