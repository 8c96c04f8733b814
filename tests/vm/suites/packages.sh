# The tests that come with the packages, in debian/tests, as they are.
# limit=300

test_list() { as_shipped; debian-tests/list; }
test_measure() { as_shipped; debian-tests/measure; }
test_steps() { as_shipped; debian-tests/steps; }
test_upgrade_removal_and_purge() {
    [ -d earlier ] || skip "there are no packages of an earlier version"
    PARVANE_EARLIER=/vm/earlier PARVANE_PACKAGES=/vm/packages debian-tests/upgrade
}
# After the purge: as on a machine that never had them.
test_new_installation() { debian-tests/install; }
