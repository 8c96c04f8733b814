# For the tests beside this file: plain shell, run as root on a machine that systemd has started and that has the
# packages. Each leaves the service as it was: running, with the system's configuration.
set -eu

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# until_true SECONDS COMMAND...
until_true() {
    left=$(($1 * 5))
    shift
    until "$@"; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || fail "not in time: $*"
        sleep 0.2
    done
}

# fields NAME: the values of a field of JSON lines.
fields() { sed -n "s/.*\"$1\":\\([^,}]*\\).*/\\1/p"; }

manual_sources='[sensors]
heart_rate=manual
pedometer=manual
activity=manual
gesture=manual'

# Values are set by hand until the test ends, whatever platform.conf says.
by_hand() {
    mkdir -p /run/systemd/system/parvane.service.d
    echo "$manual_sources" >/run/parvane-test.conf
    printf '[Service]\nEnvironment=PARVANE_PLATFORM_CONF=/run/parvane-test.conf\n' \
        >/run/systemd/system/parvane.service.d/by-hand.conf
    trap 'rm -r /run/parvane-test.conf /run/systemd/system/parvane.service.d; systemctl daemon-reload; restarted' EXIT
    systemctl daemon-reload
    restarted
}

restarted() {
    systemctl reset-failed parvane || true
    systemctl restart parvane
}
