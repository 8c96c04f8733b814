# limit=240
# What the service keeps in memory, as it is installed, after what a day brings.

# An activity every 10 seconds and steps every 5 minutes.
day() {
    awk 'BEGIN {
        print "t_ms,total_steps,activity"
        for (s = 0; s < 86400; s += 10)
            printf "%d000,%s,%d\n", s, s % 300 ? "" : s * 5 / 6, 1 + s / 10 % 3
    }'
}
memory() { sed -n "s/^$1: *\([0-9]*\) kB/\1/p" "/proc/$(property MainPID)/smaps_rollup"; }
delivered() { parvane-watch --json status | grep -oE '"delivered":[0-9]+' | cut -d: -f2 | sort -n | tail -n 1; }
lines() { [ "$(wc -l <"$1")" -ge "$2" ]; }

test_day_of_traffic_leaves_little() {
    local speed=4000
    day >day.csv
    configure <<<$'[sensors]\npedometer=manual\nactivity=manual'
    ask steps
    parvane-host watch activity >heard &
    eventually 20 lines heard 1
    # What comes faster than the phone reads is dropped.
    [ "$(uname -m)" = x86_64 ] || speed=1000
    parvane-watch play --speed "$speed" day.csv
    eventually 90 lines heard 8640
    expect_equal "activities" "$(delivered)" 8640
    echo "@@ after a day's traffic: resident $(memory Rss) kB, private dirty $(memory Private_Dirty) kB" | tee /dev/console
    [ "$(memory Rss)" -le 9000 ]
    [ "$(memory Private_Dirty)" -le 1200 ]
}
