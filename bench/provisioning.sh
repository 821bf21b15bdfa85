# How long a provisioned robot takes to be connected, and how long the same takes by hand: lab/run bench/provisioning.sh
# limit: 500 s
declare -r ROUNDS=3

median() { sort -n | awk '{ all[NR] = $1 } END { print all[int((NR + 1) / 2)] }'; }

# message_time PATTERN: when the last such message since the mark was seen.
message_time() { messages_since_mark | grep -E -- "$1" | tail -1 | cut -d' ' -f1; }

# by_daemon: from wactivate to the message of state 1.
by_daemon() {
    mark
    app_says '{"event":"provisioning"}'
    expect_log 'provisioning started' 60
    app_sends
    wait_state 1 90
    awk "BEGIN { printf \"%.2f\\n\", $(message_time '"wifi":1,') - $(message_time wactivate) }"
    provisioning_succeeds
}

# by_hand: from the start of the supplicant to the answer of the gateway.
by_hand() {
    local began=$EPOCHREALTIME
    wpa_supplicant -B -Dnl80211 -iwlan0 -c/etc/wpa_supplicant.conf -P$LAB/hand.pid >/dev/null
    udhcpc -f -n -q -t 20 -T 2 -i wlan0 -s /etc/udhcpc/default.script >/dev/null 2>&1
    until arping -q -Iwlan0 -c1 -f $HOME_GATEWAY >/dev/null; do :; done
    awk "BEGIN { printf \"%.2f\\n\", $EPOCHREALTIME - $began }"
    kill "$(<$LAB/hand.pid)"
    sleep 1
    ip addr flush dev wlan0
    ip link set wlan0 down
}

home_up
new_robot_up
app_says '{"event":"tidelinkConnected"}'
for ((round = 0; round < ROUNDS; round++)); do by_daemon >>$LAB/by_daemon; done
stop_daemon
ifdown wlan0
for ((round = 0; round < ROUNDS; round++)); do by_hand >>$LAB/by_hand; done

figure "wactivate to connected, median of $ROUNDS" "$(median <$LAB/by_daemon) s"
figure "by hand: supplicant, DHCP, ARP" "$(median <$LAB/by_hand) s"
figure "all rounds" "$(paste -sd' ' $LAB/by_daemon) / $(paste -sd' ' $LAB/by_hand)"
