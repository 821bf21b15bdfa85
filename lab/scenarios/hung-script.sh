# A script of the board hangs for ever, and the daemon with it. The service manager, told each second that the daemon lives,
# starts it anew after ten minutes of silence (which begin when an operation has gone on for five), and the robot is
# home again.
# limit: 2000 s
home_up
save_network
start_peers
background manager perl /lab/guest/manager 600 /usr/bin/netwarden
expect_from manager 'READY=1' 10
wait_state 1 120
expect_from manager 'WATCHDOG=1 STATUS=Wi-Fi CONNECTED' 5

step "ifdown hangs in a restart"
mark
broken /usr/sbin/ifdown 'exec sleep 100000'
home_arp_drop on
expect_log 'maximum ping loss count, restarting network' 100
home_arp_drop off
expect_from manager 'silent for 600 s: killed' 1000
repaired /usr/sbin/ifdown
step "started again"
mark
wait_state 1 120
expect_netinfo 10
(($(grep -c started "$LAB_RESULTS/manager.log") == 2))
