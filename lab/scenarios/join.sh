# The robot boots with a saved WPA2 network, joins it, gets a lease and tells everyone.
# limit: 180 s
home_up channel=11
save_network
kvs_set product.robotid 0123456789ABCDEF
start_peers

step "the robot starts"
start_daemon
wait_state 8 60
wait_state 1 60
step "connected $(since_start) s after its start, five of which it waits for the others"
expect_in_order '"wifi":8,' '"wifi":1,'

expect_netinfo 5
expect_wlcfg 5
expect_message brisk/robot/events '^\{"wifistat":\{"wifi":1,"uap":false\}\}$' 5
[[ $(station_status freq) == 2462 ]]
[[ $(kvs_get network.interface) == wlan0 ]]
[[ $(stat -c %a /etc/wpa_supplicant.conf) == 600 ]]

step "nothing that was written shows the key"
expect_log 'psk=\*' 1
refute_text "$HOME_KEY" "$(psk_of "$HOME_SSID" "$HOME_KEY")"
