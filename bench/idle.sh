# What the connected daemon costs a robot that has nothing to do: lab/run bench/idle.sh
# limit: 500 s
declare -r WATCH_S=180 SETTLE_S=30

# memory KEY...: the sum of these in smaps_rollup, in KiB (which it calls kB).
memory() {
    local keys
    keys=$(IFS='|'; echo "$*")
    awk -v keys="^($keys):" '$1 ~ keys { sum += $2 } END { print sum }' "/proc/$pid/smaps_rollup"
}

# ticks FIELD FIELD: two fields of /proc/PID/stat added (man 5 proc); the name holds no blank.
ticks() { awk -v a="$1" -v b="$2" '{ print $a + $b }' "/proc/$pid/stat"; }

# an_hour TICKS: CPU seconds in an hour, when it was TICKS since the watch began.
an_hour() { awk -v ticks="$1" -v hz="$(getconf CLK_TCK)" -v span="$span" 'BEGIN { printf "%.1f\n", ticks / hz * 3600 / span }'; }

robot_at_home
connected=$(since_start)
pid=$(daemon_pid)
step "connected; the daemon settles for $SETTLE_S s and is watched for $WATCH_S s"
sleep $SETTLE_S
before=$(memory Private_Clean Private_Dirty)
own=$(ticks 14 15)
children=$(ticks 16 17)
began=$(uptime_s)
sleep $WATCH_S
span=$(awk -v began="$began" '{ print $1 - began }' /proc/uptime)
own=$(($(ticks 14 15) - own))
children=$(($(ticks 16 17) - children))
refute_log 'no ping recv|Network is down'

figure "stripped executable" "$(($(stat -c %s /usr/bin/netwarden) / 1024)) KiB"
figure "start to connected, without the 5 s wait" "$(awk "BEGIN { print $connected - 5 }") s"
figure "memory: resident" "$(memory Rss) KiB"
figure "memory: private" "$(memory Private_Clean Private_Dirty) KiB"
figure "memory: private, of which heap and stacks" "$(memory Anonymous) KiB"
figure "memory: private, more than $WATCH_S s before" "$(($(memory Private_Clean Private_Dirty) - before)) KiB"
figure "threads" "$(awk '/^Threads/ { print $2 }' "/proc/$pid/status")"
figure "descriptors" "$(find "/proc/$pid/fd" -type l | wc -l)"
figure "CPU of the daemon" "$(an_hour "$own") s an hour"
figure "CPU of the programs it runs" "$(an_hour "$children") s an hour"
