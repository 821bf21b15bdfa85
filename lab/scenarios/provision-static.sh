# The owner gives the robot an address of its own; the home has no DHCP server at all.
# limit: 180 s
home_ap_up
new_robot_up
provisioning_begins

step "a gateway that is no address reaches no shell"
app_sends more='"addr":"192.168.77.20","mask":"255.255.255.0","gw":"$(reboot)"'
expect_log 'generate_static_ip_cmd failed' 5
wait_state 9 15
refute_reboot

step "an address with one name server, given as the second"
app_sends more='"addr":"192.168.77.20","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"0.0.0.0","dns2":"192.168.77.1"'
provisioning_succeeds
[[ $(robot_address) == 192.168.77.20 ]]
[[ $(kvs_get network.addr_type) == 0 ]]
refute "a DHCP client runs" pgrep udhcpc
expect_netinfo 10 dhcp=false addr=192.168.77.20
expect_wlcfg 5 more='"addr":"192.168.77.20","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"192.168.77.1","dns2":"0.0.0.0"'
