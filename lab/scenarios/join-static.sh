# A home without DHCP: the saved configuration is an address of its own, with two name servers.
# limit: 180 s
home_ap_up
save_network
kvs_set network.addr_type 0
kvs_set network.ip_config 'sudo provision --clmode static --clipaddr 192.168.77.20 --clnetmask 255.255.255.0 --clgw 192.168.77.1 --cldnsns1 192.168.77.1  --cldnsns2 9.9.9.9 
'
start_peers
start_daemon
wait_state 1 90
[[ $(robot_address) == 192.168.77.20 ]]
refute "a DHCP client runs" pgrep udhcpc
expect_netinfo 5 dhcp=false addr=192.168.77.20 dns2=9.9.9.9
expect_wlcfg 5 more='"addr":"192.168.77.20","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"192.168.77.1","dns2":"9.9.9.9"'
