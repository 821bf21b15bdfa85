# The gateway falls silent while the radio link is fine: three lost pings in a row restart the network,
# fewer do not. It pings every 20 seconds.
# limit: 500 s
robot_at_home
expect_log 'ready to ping using sudo arping -Iwlan0 -c1 192\.168\.77\.1 -w 2' 40

step "one lost ping is forgiven"
mark
home_arp_drop on
expect_log 'no ping recv, loss counter = 1' 40
home_arp_drop off
mark
sleep 64   # three more pings
refute_log 'no ping recv|restarting network'

step "three in a row are not"
home_arp_drop on
expect_log 'no ping recv, loss counter = 1' 40
expect_log 'no ping recv, loss counter = 3' 60
expect_log 'maximum ping loss count, restarting network' 5
expect_log 'wifi = 11' 20
mark
home_arp_drop off
wait_state 1 90
step "the restarted network is up"
