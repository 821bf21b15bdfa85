# A mission starts while the owner provisions the robot: the soft AP goes, the robot is back on its saved network,
# and can be provisioned again. A robot that drives to its dock, or stands there, is not disturbed.
# limit: 300 s
home_ap_up ssid=other key='another key 7' radio=2 channel=1
robot_at_home
mission() { app_says "{\"cleanMissionStatus\":{\"cycle\":\"$1\",\"phase\":\"$2\"}}"; }
saved() { grep -r . $STORE/network.*; }
before=$(saved)

step "outside provisioning a mission leaves no trace; provisioning goes on while the robot docks and charges"
mark
mission clean run
app_says '{"cleanMissionStatus":{"cycle":"clean"}}'
expect_log '\[WARN\].*could not parse cycle or phase from cleanMissionStatus' 5
provisioning_begins
mission dock hmUsrDock
mission clean charge
mission none stop
app_says "{\"wlcfg\":{\"ssid\":\"$(hex other)\",\"pass\":\"$(hex 'another key 7')\"}}"
expect_log 'rx event PROVISIONING_NETWORK_CONFIG_RX in state WAITING_FOR_NETWORK_CONFIG_RX' 10
refute_log 'PROVISIONING_ABORT'

step "a mission starts"
mark
mission clean run
expect_log 'rx event PROVISIONING_ABORT in state WAITING_FOR_WACTIVATE' 5
expect_log 'provisioning stopped in state 2' 30
wait_state 1 90
expect_netinfo 10
expect_wlcfg 5
expect_in_order ' robot/debug \{"command":"provabort"\}$' ' network/events \{"wifistat":\{"wifi":1,"uap":false\}\}$'
[[ ! $(robot_address wlan1) ]]
[[ -s /tmp/syslog-prov-fail-wifilog.gz.base64 ]]
[[ $(saved) == "$before" ]]

step "after the mission the robot is provisioned for the other network"
mark
mission none charge
provisioning_begins
app_sends ssid=other key='another key 7'
provisioning_succeeds other "$(psk_of other 'another key 7')"
