# The better access point refuses the robot's hop: the robot is back at the one that takes it.
# limit: 300 s
kvs_set robot.disc_reconnect_sleep_sec 15
home_ap_up channel=6 radio=1
robot_in_small_home
home_ap_up channel=11 radio=2 rejects=1
tracking_begins
expect_log 'connection to AP rejected' 150
expect_log 'Failed to switch bssid' 20
track stop
expect "back at the first access point" 90 is_joined bssid "$(home_bssid 1)"
expect "a working link" 30 gateway_answers
mark
sleep 3   # three passes of the supervision
refute_message network/events '"wifi":[^1]'
