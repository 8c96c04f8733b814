# The installed unit as shipped, under systemd as the machine's first process.

pid() { property MainPID; }
# As systemd counts it: exposure UNIT
exposure() { systemd-analyze security "$1" --no-pager | sed -nE "s/.*Overall exposure level for $1.service: ([0-9.]+).*/\1/p"; }
# The unit with a probe inside, and what that may do, into the file "inside": probe UNIT
probe() {
    # The unit with another program.
    sed -e 's,^Type=.*,Type=oneshot,; s,^ExecStart=.*,ExecStart=/bin/bash /usr/local/lib/probe,; /^Restart/d; /^WatchdogSec/d' \
        -e 's,^StandardOutput.*,,; /^NotifyAccess/d; /^ExecReload/d' "$(property FragmentPath "$1")" >/run/systemd/system/parvane-probe.service
    mkdir -p /usr/local/lib
    install -d -m 700 -o nobody /var/lib/other
    cp guest/probe /usr/local/lib/probe
    systemctl daemon-reload
    systemctl stop "$1"
    systemctl start parvane-probe
    journalctl -u parvane-probe -o cat --no-pager --cursor="$cursor" | grep -E '^(allowed|forbidden) ' >inside
    systemctl start "$1"
    [ "$(wc -l <inside)" -ge 20 ]
}
# Nothing else is allowed inside: allows PATTERN
allows() {
    local name verdict
    while read -r verdict name; do
        if [[ $name =~ ^($1)$ ]]; then
            [ "$verdict" = allowed ] || fail "inside, $name is forbidden"
        else
            [ "$verdict" = forbidden ] || fail "inside, $name is allowed"
        fi
    done <inside
}

test_starts_and_says_serving() {
    as_shipped
    expect_equal "its state" "$(property ActiveState)" active
    systemctl status parvane --no-pager | grep 'Status: "Serving"'
    expect_equal "its user" "$(ps -o user= -p "$(pid)")" parvane
    expect_equal "mode of its state" "$(stat -c '%a %U' /var/lib/parvane)" "700 parvane"
    expect_equal "mode of its sockets' folder" "$(stat -c '%a %U' /run/parvane)" "700 parvane"
}

test_serves_root_and_its_own_user_only() {
    as_shipped
    parvane-host list
    runuser -u parvane -- parvane-host list
    refused runuser -u nobody -- parvane-host list
    # Whoever gets as far as the socket is still looked at.
    chmod 711 /run/parvane
    chmod 666 /run/parvane/link.sock
    refused runuser -u nobody -- parvane-host list
    logged 'a host of user 65534 is refused'
}

test_idle_it_wakes_up_for_nothing() {
    local before after
    as_shipped
    sleep 3
    before=$(wake_ups)
    sleep 10
    after=$(wake_ups)
    # The watchdog's sign of life is due once a minute.
    [ $((after - before)) -le 1 ] || fail "$((after - before)) wake-ups in 10 s"
}
wake_ups() { cat "/proc/$(pid)/task"/*/status | awk '/^voluntary_ctxt_switches/ { sum += $2 } END { print sum }'; }

test_measures_and_counts() {
    local before
    configure <<<$'[sensors]\nheart_rate=manual\npedometer=manual'
    parvane-watch set hr 71
    parvane-host measure hr | grep '71 bpm'
    parvane-host measure wear | grep yes
    before=$(ask steps)
    parvane-watch steps +120
    eventually 20 stores $((before + 120))
}

test_frozen_it_is_restarted() {
    local frozen
    as_shipped
    drop_in watchdog <<<$'[Service]\nWatchdogSec=6s'
    systemctl restart parvane
    frozen=$(pid)
    sleep 8
    expect_equal "a service that lives: restarts" "$(property NRestarts)" 0
    kill -STOP "$frozen"
    eventually 60 is NRestarts 1
    eventually 30 is StatusText Serving
    [ "$(pid)" != "$frozen" ]
    logged 'Watchdog timeout'
    parvane-host list
}

test_journal_has_the_fields() {
    local entry
    configure <<<$'[sensors]\nheart_rate=manual\n[memory]\nmonitor=pressure\npressure_file=/nowhere'
    parvane-watch set hr 64
    parvane-host measure wear
    journalctl -u parvane --sync >/dev/null
    entry=$(journal PARVANE_TAG=platform -o verbose -n 1)
    for field in MESSAGE= PRIORITY=[3-7] SYSLOG_IDENTIFIER=parvane CODE_FILE=platform/linux/ CODE_LINE=[0-9] CODE_FUNC= \
        _SYSTEMD_UNIT=parvane.service _TRANSPORT=journal; do
        grep -E "^ +$field" <<<"$entry" || fail "no $field in: $entry"
    done
    entry=$(journal PARVANE_TAG=Parvane CODE_FILE=ParvaneMain -o verbose -n 1)
    grep -E '^ +MESSAGE=ParvaneMain: [a-z_]+\([0-9]+\) > ' <<<"$entry" || fail "not the service's form: $entry"
    journal -p warning PARVANE_TAG=platform | grep /nowhere
}

test_forbidden_is_what_must_be() {
    as_shipped
    probe parvane
    # The same by root, outside of it, shows that each attempt can succeed.
    bash guest/probe | grep -E '^(allowed|forbidden) ' >outside
    expect_equal "the number of attempts" "$(wc -l <inside)" "$(wc -l <outside)"
    refused grep ^forbidden outside
    allows 'its own .*'
}

test_stop_and_start_leave_nothing_behind() {
    local lock
    as_shipped
    systemctl stop parvane
    expect_equal "its end" "$(property Result) $(property ExecMainStatus)" "success 0"
    [ ! -e /run/parvane ]
    refused parvane-host list
    systemctl start parvane
    lock=$(stat -c %i /run/parvane/lock)
    systemctl restart parvane
    expect_equal "the lock after a restart" "$(stat -c %i /run/parvane/lock)" "$lock"
    parvane-host list
}

test_terminated_it_ends_and_killed_it_comes_back() {
    local killed before
    configure <<<$'[sensors]\npedometer=manual'
    before=$(ask steps)
    parvane-watch steps +77
    eventually 20 stores $((before + 77))
    killed=$(pid)
    systemctl kill -s KILL parvane
    eventually 30 is NRestarts 1
    eventually 30 is StatusText Serving
    [ "$(pid)" != "$killed" ]
    parvane-host --wait 20 list
    stores $((before + 77))
    systemctl kill -s TERM parvane
    eventually 30 is ActiveState inactive
    expect_equal "its end" "$(property Result)" success
}

test_restarts_have_a_limit() {
    as_shipped
    # The manager's own limit is five in ten seconds, which a slow machine does not reach.
    drop_in limit <<<$'[Unit]\nStartLimitIntervalSec=10min'
    systemctl reset-failed parvane
    systemctl restart parvane
    for restarts in 1 2 3 4; do
        systemctl kill -s KILL parvane
        eventually 30 restarted "$restarts"
    done
    systemctl kill -s KILL parvane
    eventually 30 is ActiveState failed
    logged 'Start request repeated too quickly'
    systemctl reset-failed parvane
    systemctl start parvane
    parvane-host list
}
restarted() { is NRestarts "$1" && is StatusText Serving; }

test_exposure_is_what_the_page_says() {
    local expected=0.2
    [ ! -e /lib/systemd/system/parvane.service.d/gateway.conf ] || expected=0.4
    expect_equal "its exposure" "$(exposure parvane)" "$expected"
}

tear_down() {
    rm -rf /var/lib/other /run/systemd/system/parvane-probe.service
    chmod 700 /run/parvane 2>/dev/null
}
