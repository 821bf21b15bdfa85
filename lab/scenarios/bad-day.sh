# Whatever the daemon leans on breaks while it is connected: the supplicant, the radio, the system's scripts.
# It finds its way back each time, and leaves no child, descriptor or thread behind.
# limit: 1200 s
home_up
save_network
kvs_set network.watchdog_interval_min 3
start_peers --next-cleaning 0   # never far enough away for a reboot
start_daemon
wait_state 1 120
expect_log 'ready to ping using' 40

# Ended children of the daemon that it did not collect.
zombies() { grep -lE "^[0-9]+ \(.*\) Z $(daemon_pid) " /proc/[0-9]*/stat; }
held=$(daemon_count fd) threads=$(daemon_count task)
is_tidy() { (($(daemon_count fd) <= held && $(daemon_count task) == threads)) && ! zombies; }

# The network is restarted (what was published before was the old one going down) and comes up.
expect_recovery() {
    expect_log 'wifi = 11' 120
    mark
    wait_state 1 120
    expect_netinfo 10
    expect "no descriptor, thread or ended child more than before" 30 is_tidy
    refute_reboot
}

supplicant_pid() { cat /run/netwarden-board/wpa_supplicant.wlan0.pid; }

step "the supplicant is ended"
mark
kill "$(supplicant_pid)"
wait_state 5 30
expect_recovery

step "the supplicant is killed"
mark
kill -9 "$(supplicant_pid)"
expect_recovery

step "the radio is unplugged, and back"
mark
phy=phy#$(cat /sys/class/net/wlan0/phy80211/index)
iw "$phy" set netns name phone
expect_log 'no address count, 2' 80
phone iw "$phy" set netns $$
expect_log 'restarting network' 60
expect_recovery

step "the station cannot be started, and then only slowly"
station=/usr/lib/netwarden-board/station
broken $station "[ \"\$1\" = up ] || exec $station.good \"\$@\"
head -c 5000 /dev/urandom
exit 3"
mark
home_arp_drop on
expect_log 'maximum ping loss count, restarting network' 100
expect_log 'failed to start station interface' 30
home_arp_drop off
mark
broken $station "sleep 10
exec $station.good \"\$@\""
expect_log 'no address count, 3' 120
expect_recovery
