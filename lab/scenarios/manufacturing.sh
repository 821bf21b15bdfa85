# The factory tests a robot without settings: it joins the factory's network, which it does not keep, and is then
# provisioned by its owner as any other. Process 1 runs the test.
# limit: 240 s
home_up
home_ap_up ssid=owner key='owner key 7' radio=2 channel=1
new_robot_up

step "the test starts, and brings settings; process 1 hears that the robot joins"
mark
peer_tells 1 '{"event":"mfg_test_start"}'
expect_log 'rx event MFG_WIFI_TEST in state PS_NONE' 5
expect_log '\[WARN\].*Unhandled prov event MFG_WIFI_TEST' 30
peer_asks 1 "{\"wlcfg\":{\"ssid\":\"$(hex "$HOME_SSID")\",\"pass\":\"$(hex "$HOME_KEY")\"},\"wactivate\":true}" \
    '\{"wifistat": \{"wifi": 8\}\}'
expect_log '\[ERROR\].*Unsupported message' 1
wait_state 1 90
expect_netinfo 20
expect_in_order ' tarn/5/req/network/[0-9]+ \{"event":"disconnect_local"\}$' \
    ' network/events \{"wifistat":\{"wifi":8,"uap":false\}\}$' \
    ' tarn/1/req/network/[0-9]+ \{"wifistat": \{"wifi": 8\}\}$' \
    ' network/events \{"wifistat":\{"wifi":1,"uap":false\}\}$'
expect_log 'rx event PROVISIONING_DHCP_COMPLETE in state PS_NONE' 20

step "the tester looks at the radio; the end of its Bluetooth test is none of provisioning's"
peer_asks 1 '{"get":"channel"}' '\{"channel": 6\}'
peer_asks 1 '{"logWifiLinkInfo":1}' '\{"logWifiLinkInfo":1\}'
expect_log '\[INFO\].*rssi: -[0-9]+, channel: 6, noise: -?[0-9]+' 1
peer_tells 1 '{"mfg_test":"btTest"}'
expect_log '\[WARN\].*Unhandled prov event TRAIN_ABORT' 5

step "nothing of the test is kept or told to the app, and the owner provisions the robot"
refute_message 'local/cmd|robot/debug' command
for key in ssid password ip_config; do refute "network.$key is saved" kvs_get network.$key; done
mark
provisioning_begins
app_sends ssid=owner key='owner key 7'
provisioning_succeeds owner "$(psk_of owner 'owner key 7')"
refute_message tarn/1/req/network/.* wifistat
