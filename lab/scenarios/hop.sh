# Tracking moves the robot between the home's access points: always to another channel, the address kept.
# limit: 600 s
kvs_set product.regdom US
kvs_set robot.disc_reconnect_sleep_sec 20
home_up channel=6 radio=1
home_ap_up channel=36 radio=2
home_ap_up channel=11 radio=3
save_network
start_daemon
wait_state 1 120
expect_log 'setting bssid switch sleep to user selected val 20 sec' 1
address=$(robot_address)

tracking_begins
expect_log 'discover threads done' 300
step "the sweep is done: hops begin"
start=$(station_status freq)
mark
background ping sh -c "ping -i 0.05 $HOME_GATEWAY | perl -MTime::HiRes=time -pe 'BEGIN { \$| = 1 } printf \"%.3f \", time'"

# The supplicant's word on where it went, in MHz.
hops() { log_since_mark | sed -nE 's/.*wpa_supplicant.*Trying to authenticate with .*freq=([0-9]+) MHz.*/\1/p'; }
heard() { cat /sys/class/net/mon0/statistics/rx_packets; }
from=$start
for hop in 1 2 3 4; do
    was_heard=$(heard)
    expect "hop $hop" 60 eval "((\$(hops | wc -l) >= $hop))"
    to=$(hops | sed -n ${hop}p)
    step "hop $hop: from $from to $to MHz"
    expect "hop $hop arrives" 10 is_joined freq "$to"
    [[ $from != "$to" && $(robot_address) == "$address" ]]
    (($(heard) > was_heard)) || fail "the monitor hears nothing any more"
    from=$to
done
for freq in 2437 2462 5180; do hops | grep -q "^$freq$"; done
(($(log_since_mark | grep -c 'Obtained new BSSID; switch successful') >= 2))
refute_log 'failed to get bssid to switch to|Failed to switch bssid|failed to roam|restarting network'
refute_message network/events '"wifi":[^1]'
expect_message robot/debug '^\{"wifiScanResults":\[(\{"bssid":"[0-9a-f:]{17}","rssi":-[0-9]+,"freq":[0-9]+\},?){3}\]\}$' 1
sleep 1
# What is not lost waits in the radio's queue, so the gap is the time without replies.
step "pings 50 ms apart: $(awk 'match($0, /seq=[0-9]+/) { now = substr($0, RSTART + 4, RLENGTH - 4)
    if (got++) { lost += now - last - 1; if ($1 - then > 0.25) gaps = gaps " " int(($1 - then) * 1000) }
    last = now; then = $1 }
    END { printf "%d replies, %d lost in 4 hops and their scans; silent for (ms):%s", got, lost, gaps }' "$LAB_RESULTS/ping.log")"
