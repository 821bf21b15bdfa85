# The robot moves house: provisioned for one home, then for another; both at hand, it keeps to the second,
# whose access point does not tell its name in its beacons.
# limit: 240 s
home_ap_up ssid='Second Home' key='another horse' channel=11 radio=2 hidden=1
robot_at_home
provisioning_begins
app_sends ssid='Second Home' key='another horse'
provisioning_succeeds 'Second Home' "$(psk_of 'Second Home' 'another horse')"
[[ $(station_status bssid) == "$(home_bssid 2)" ]]

step "and after its next start"
stop_daemon
mark
start_daemon
wait_state 1 90
[[ $(station_status bssid) == "$(home_bssid 2)" ]]
