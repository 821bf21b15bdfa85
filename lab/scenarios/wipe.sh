# --wipe forgets the home network and nothing else; the robot then waits for an owner, off.
# limit: 180 s
home_up
save_network
kvs_set network.interface wlan0
kvs_set network.watchdog_interval_min 5
kvs_set product.robotid 0123456789ABCDEF
kvs_set robot.name Rosie
start_peers
start_daemon --wipe
expect_log 'Wiped network keys' 20
expect_log 'no network configuration, creating default /etc/wpa_supplicant.conf' 60
wait_state 0 20
[[ $(cd "$STORE" && echo *) == "network.interface product.robotid robot.name" ]]
[[ $(kvs_get robot.name) == Rosie ]]
cmp /etc/wpa_supplicant.conf <<CONF
eapol_version=1
fast_reauth=1
ap_scan=1
filter_ssids=1
ctrl_interface=/var/run/wpa_supplicant
ctrl_interface_group=apps
CONF
[[ ! $(robot_address) ]]
refute_message network/events wlcfg
