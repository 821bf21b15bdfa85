# The saved key is not the home's (any more): the robot never says that it is connected, its log says why,
# and the key is in no log.
# limit: 180 s
home_up
save_network "$HOME_SSID" 'yesterday key'
start_peers
start_daemon
wait_state 8 60
expect_log 'wlan monitor event - .*CTRL-EVENT-SSID-TEMP-DISABLED .*WRONG_KEY' 90
mark
expect_log 'CTRL-EVENT-SSID-TEMP-DISABLED .*WRONG_KEY' 60
refute "it said that it was connected" grep -F '"wifi":1,' "$LAB_MESSAGES"
[[ ! $(robot_address) ]]
refute_text 'yesterday key' "$(psk_of "$HOME_SSID" 'yesterday key')"
