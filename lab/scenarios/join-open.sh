# An open home: no key is saved, none is written.
# limit: 180 s
home_up security=open
save_network "$HOME_SSID"
start_peers
start_daemon
wait_state 1 90
expect_message network/events "$(netinfo dhcp=true sec=0)" 5
expect_message network/events "^\{\"wlcfg\":\{\"sec\":0,\"ssid\":\"$(hex "$HOME_SSID")\"\}\}$" 5
expect_log 'OPEN network block generated' 1
refute "a key in an open network's configuration" grep -E 'psk|wep' /etc/wpa_supplicant.conf
