# The access point goes away and comes back. Away for a moment: the robot joins again by itself and has its
# lease renewed by signal. Away for half a minute: the watchdog finds the robot still waiting and restarts
# the network, and the robot joins when the access point is back.
# limit: 300 s
robot_at_home
# A ping has just been sent: the watchdog, which restarts the network, is 20 seconds away.
expect_log 'ready to ping using' 40
address=$(robot_address)

step "the access point restarts"
mark
discoveries() { grep -c DHCPDISCOVER "$LAB_RESULTS/dhcp.log"; }
discovered=$(discoveries)
home_ap_restart
wait_state 5 30
wait_state 1 60
expect_in_order '"wifi":5,' '"wifi":1,'
expect_log 'udhcpc.*: sending renew' 10
expect_log "udhcpc.*: lease of $address obtained" 20
[[ $(discoveries) == "$discovered" ]]
[[ $(robot_address) == "$address" ]]

step "the access point is off for half a minute"
mark
off=$SECONDS
home_ap_down
wait_state 5 30
expect_log 'wifi is trying to reconnect' 25
while ((SECONDS - off < 30)); do sleep 1; done
refute_message network/events '"wifi":1,'
home_ap_up
wait_state 1 90
expect_netinfo 10
refute_log 'failed to connect to wpa_supplicant'
