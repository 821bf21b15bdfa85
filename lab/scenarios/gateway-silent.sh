# The gateway falls silent while the radio link is fine: three lost pings in a row restart the network,
# fewer do not. The daemon's clock is sped up: it pings every 20 seconds.
# limit: 300 s
fast_clock 1
robot_at_home
expect_log 'ready to ping using sudo arping -Iwlan0 -c1 192\.168\.77\.1 -w 2' 40

step "one lost ping is forgiven"
fast_clock 8
mark
home_arp_drop on
expect_log 'no ping recv, loss counter = 1' 40
home_arp_drop off
mark
sleep 8
refute_log 'no ping recv|restarting network'

step "three in a row are not"
home_arp_drop on
expect_log 'no ping recv, loss counter = 1' 40
expect_log 'no ping recv, loss counter = 3' 40
expect_log 'maximum ping loss count, restarting network' 5
fast_clock 1
expect_log 'wifi = 11' 20
mark
home_arp_drop off
wait_state 1 90
step "the restarted network is up"
