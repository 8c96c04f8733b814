# limit=240
# What the service keeps in memory, as it is installed, after what a day brings.

# An activity every 10 seconds and steps every 5 minutes; the day begins when the phone has had time to come.
day() {
    awk 'BEGIN {
        print "t_ms,total_steps,activity"
        print "0,0,1"
        for (s = 0; s < 86400; s += 10)
            printf "%d000,%s,%d\n", 100000 + s, s % 300 ? "" : s * 5 / 6, 1 + s / 10 % 3
    }'
}
memory() { sed -n "s/^$1: *\([0-9]*\) kB/\1/p" "/proc/$(property MainPID)/smaps_rollup"; }
brought() { [ "$(parvane-watch --json status | grep -oE '"delivered":[0-9]+' | cut -d: -f2 | sort -n | tail -n 1)" -ge "$1" ]; }

test_day_of_traffic_leaves_little() {
    day >/vm/day.csv
    configure <<<$'[sensors]\npedometer=replay\nactivity=replay\n[replay]\nfiles=/vm/day.csv\nspeed=4000\nloop=false'
    parvane-host watch all >heard 2>/dev/null &
    eventually 90 brought 8640
    [ "$(wc -l <heard)" -ge 8000 ]
    echo "@@ after a day's traffic: resident $(memory Rss) kB, private dirty $(memory Private_Dirty) kB" | tee /dev/console
    [ "$(memory Rss)" -le 9000 ]
    [ "$(memory Private_Dirty)" -le 1200 ]
}
