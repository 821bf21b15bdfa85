# The owner walks away: after twenty minutes the robot gives up, keeps a Wi-Fi log, and is home again as before.
# limit: 1500 s
robot_at_home
provisioning_begins
has_no_address

step "20 minutes pass"
mark
expect_log 'PROVISIONING TIMEOUT' 1260
expect_message robot/debug '^\{"command":"provfail"\}$' 20
expect_log 'provisioning stopped in state 1' 30
captured() { base64 -d /tmp/syslog-prov-fail-wifilog.gz.base64 | zcat | grep -q wpa_supplicant; }
expect "a Wi-Fi log" 30 captured

step "home again"
wait_state 1 90
[[ $(kvs_get network.last_prov_status) == 1 ]]
[[ ! $(ip link show up dev wlan1) ]]
