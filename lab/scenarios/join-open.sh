# An open home: no key is saved, none is written.
# limit: 180 s
home_up security=open
save_network "$HOME_SSID"
start_peers
start_daemon
wait_state 1 90
expect_netinfo 5 sec=0
expect_wlcfg 5 sec=0
expect_log 'OPEN network block generated' 1
refute "a key in an open network's configuration" grep -E 'psk|wep' /etc/wpa_supplicant.conf
