# The better access point refuses the robot's hop: the robot is back at the one that takes it.
# limit: 300 s
kvs_set robot.disc_reconnect_sleep_sec 15
home_ap_up channel=6 radio=1
save_small_network
start_daemon
wait_state 1 120
home_ap_up channel=11 radio=2 rejects=1
mark
track start
expect_log 'connection to AP rejected' 150
expect_log 'Failed to switch bssid' 20
track stop
is_home() { [[ $(station_status wpa_state) == COMPLETED && $(station_status bssid) == "$(home_bssid 1)" ]]; }
expect "back at the first access point" 90 is_home
gateway_answers() { arping -q -Iwlan0 -c1 -w2 $HOME_GATEWAY; }
expect "a working link" 30 gateway_answers
mark
sleep 3   # three passes of the supervision
refute_message network/events '"wifi":[^1]'
