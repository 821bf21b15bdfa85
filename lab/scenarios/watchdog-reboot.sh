# The station cannot be brought up at all (the saved key fits no kind of network): after the limit of three
# watchdog cycles the network is restarted; later the robot reboots, but never into a cleaning.
# limit: 900 s
save_network "$HOME_SSID" seven77
kvs_set network.watchdog_interval_min 3
start_peers --next-cleaning 899
start_daemon
wait_state 11 60
expect_log 'no network blocks generated, setting error_code to WIFI_AUTH_ERROR' 1
expect_log 'no address count, 1' 60
refute_log 'restarting network'
expect_log 'no address count, 3' 80
expect_log 'restarting network' 5

step "a cleaning is due in 899: no reboot"
expect_log 'No connectivity but clean mission running or scheduled. Waiting to reboot' 120
expect_log 'no address count, 7' 120
refute_reboot

step "the next cleaning is 900 away, but a mission begins in the ten seconds before the reboot: none"
peers_next_cleaning 900
expect_log 'No connectivity, rebooting' 60
mark
app_says '{"cleanMissionStatus":{"cycle":"clean","phase":"run"}}'
expect_log 'Waiting to reboot' 20
refute_reboot

step "the mission is over: reboot"
mark
app_says '{"cleanMissionStatus":{"cycle":"none","phase":"charge"}}'
expect_log 'No connectivity, rebooting' 60
refute_reboot   # it waits ten seconds before it does
expect_reboot 11
