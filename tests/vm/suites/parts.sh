# What the suites of the gateway and the hub share, which are services of their own beside the watch's; no suite itself.

# The commands of a section of a page, without the blocks' fences: lines_of PAGE SECTION
lines_of() {
    sed -n "/^##* $2\$/,/^##/p" "/usr/share/doc/parvane/$1" | sed -n '/^```sh/,/^```/p' | grep -v '^```'
}
# As root, who we are.
sudo() { "$@"; }

# Which of them: part PACKAGE
part() {
    part=$1
    part_conf=/etc/parvane/${1#parvane-}.conf
    part_drop_ins=/run/systemd/system/$1.service.d
}
part_is() { [ "$(property "$1" "$part")" = "$2" ]; }
part_logged() { journalctl -u "$part" --no-pager -o cat --cursor="$cursor" | grep -E -- "$1"; }
anew() {
    systemctl reset-failed "$part" 2>/dev/null || true
    systemctl restart "$part"
}
# As it was installed, with nothing of what the case has left.
part_down() {
    systemctl stop "$part"
    rm -rf "/var/lib/$part"/* "$part_drop_ins"
    systemctl daemon-reload
    cp "/usr/share/doc/parvane/${part_conf##*/}.sample" "$part_conf"
}

is_at_home() {
    expect_equal "its user" "$(ps -o user:32= -p "$(property MainPID "$part")" | xargs)" "$part"
    expect_equal "mode of its state" "$(stat -c '%a %U' "/var/lib/$part")" "700 $part"
    expect_equal "mode of its sockets' folder" "$(stat -c '%a %U' "/run/$part")" "700 $part"
    expect_equal "modes of its files" "$(stat -c '%a %U' "/var/lib/$part"/* | sort -u)" "600 $part"
    refused runuser -u nobody -- "$part" status
    "$part" check-config
}
ends_in_order() {
    systemctl stop "$part"
    expect_equal "its end" "$(property Result "$part") $(property ExecMainStatus "$part")" "success 0"
    [ ! -e "/run/$part" ]
}
# The manager looks after it more often than the unit asks for, until the case ends.
watched() {
    mkdir -p "$part_drop_ins"
    printf '[Service]\nWatchdogSec=6s\n' >"$part_drop_ins/watchdog.conf"
    systemctl daemon-reload
}
freeze() {
    local frozen
    frozen=$(property MainPID "$part")
    kill -STOP "$frozen"
    eventually 60 part_is NRestarts "$1"
    part_logged 'Watchdog timeout'
    [ "$(property MainPID "$part")" != "$frozen" ]
}
