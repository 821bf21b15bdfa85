# The board's scripts alone, without the daemon: ifup joins a WPA2 home, the lease is renewed by the
# daemon's signal, ifdown leaves nothing behind; a phone joins the soft AP.
# limit: 180 s
home_up
network_conf
provision --clmode dhcp

step "the station comes up"
ifup wlan0
expect "an address for wlan0" 60 has_leased_address
step "joined as $(robot_address)"
[[ $(station_status bssid) == "$(home_bssid)" ]]
gateway_answers
[[ $(awk '$1 == "nameserver" { print $2 }' /etc/resolv.conf) == "$HOME_GATEWAY" ]]

step "the gateway stops answering ARP"
home_arp_drop on
refute "the gateway answered" gateway_answers
home_arp_drop off

step "the lease is renewed by signal"
requests() { grep -c DHCPREQUEST "$LAB_RESULTS/dhcp.log"; }
before=$(requests)
kill -16 "$(cat /var/run/udhcpc.wlan0.pid)"
renewed() { (($(requests) > before)); }
expect "a renewal" 10 renewed

step "the station goes down"
ifdown wlan0
[[ ! $(robot_address) ]]
refute "a supplicant or DHCP client is left" pgrep -x "wpa_supplicant|udhcpc"

step "the soft AP comes up"
network_device_interfaces_control.sh --interface=softap --action=add
provision --apssid Plover-ABCD --apchan 6 --aphwmode g
ifup wlan1
phone_join ssid=Plover-ABCD
phone ping -c1 192.168.10.1
hostapd_cli -ip2p0 all_sta | grep -qx 02:00:00:00:05:00
