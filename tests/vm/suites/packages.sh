# The tests that come with the packages, in debian/tests, as they are.
# limit=300

test_list() { as_shipped; debian-tests/list; }
test_measure() { as_shipped; debian-tests/measure; }
test_steps() { as_shipped; debian-tests/steps; }
test_upgrade_removal_and_purge() {
    [ -d earlier ] || skip "there are no packages of an earlier version"
    PARVANE_EARLIER=/vm/earlier PARVANE_PACKAGES=/vm/packages debian-tests/upgrade
}
test_gateway_and_hub_come_and_go_by_themselves() {
    leaves_nothing parvane-gateway
    # The hub alone is let in, too.
    configure <<<$'[sensors]\npedometer=manual\n[link]\nallow=parvane-hub'
    printf '[watch anna]\nlink=unix:/run/parvane/link.sock\n' >>/etc/parvane/hub.conf
    systemctl restart parvane-hub
    eventually 60 hub_is_linked
    leaves_nothing parvane-hub
    as_shipped
    expect_equal "whether others are told apart" "$(property PrivateUsers)" yes
    dpkg -i packages/parvane-{gateway,hub}_*.deb
    systemctl is-active parvane-gateway parvane-hub
}
hub_is_linked() { parvane-hub status | grep '1 of 1 linked'; }
leaves_nothing() {
    [ -e "/var/lib/$1" ] && [ -e "/etc/parvane/${1#parvane-}.conf" ] && id "$1"
    dpkg --purge "$1"
    expect_equal "what a purge has left" "$(ls -d "/var/lib/$1" "/run/$1" "/etc/parvane/${1#parvane-}.conf" 2>/dev/null)" ""
    refused id "$1"
    refused systemctl cat "$1"
}
test_each_of_them_is_a_case() {
    for file in debian-tests/*; do
        case ${file##*/} in
        control | support.sh) ;;
        *) grep -w "$file" suites/packages.sh && grep -wE "^Tests:.* ${file##*/}" debian-tests/control || fail "$file is not run" ;;
        esac
    done
}

# The lines of README's "Install", as they are, on a machine that has no package any more; the first one has been run.
# The last case: what is not named there is not installed after it.
test_new_installation_as_the_readme_has_it() {
    local lines present
    mapfile -t present < <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 'parvane*' | sed -n 's/^installed //p')
    dpkg --purge "${present[@]}"
    mkdir -p build
    ln -sfn ../packages build/packages
    lines=$(sed -n '/^## Install/,/^## /p' README.md | sed -n '/^```sh/,/^```/p' | grep -v '^```')
    expect_equal "the first line" "$(head -n 1 <<<"$lines" | cut -d' ' -f1)" script/package
    lines=$(tail -n +2 <<<"$lines")
    expect_equal "the lines after it" "$(wc -l <<<"$lines")" 2
    sudo() { "$@"; }
    eval "${lines//amd64/$(dpkg --print-architecture)}" >said
    grep 'Status: "Serving"' said
    parvane-host list
    debian-tests/install
}
