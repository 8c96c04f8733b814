# The tests that come with the packages, in debian/tests, as they are.
# limit=300

test_list() { as_shipped; debian-tests/list; }
test_measure() { as_shipped; debian-tests/measure; }
test_steps() { as_shipped; debian-tests/steps; }
test_upgrade_removal_and_purge() {
    [ -d earlier ] || skip "there are no packages of an earlier version"
    PARVANE_EARLIER=/vm/earlier PARVANE_PACKAGES=/vm/packages debian-tests/upgrade
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
