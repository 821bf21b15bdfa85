# The story that scripts/demo shows, told as it happens: what the robot does, what it says on its broker,
# and the lines of its log that matter.
# limit: 400 s

tells_live 'found wlan0 iface|SoftAP is|rx event|network block generated|Connection established|CTRL-EVENT-(CONNECTED|DISCONNECTED)|wifi = |wifi is |Network is down|ready to ping|no ping recv|maximum ping loss'
chapter "A home: an access point with WPA2 on channel 6, DHCP, a gateway, all on simulated radios."
tell "A robot that has just left the factory boots. It waits five seconds for its other processes, and finds no"
tell "saved network."
home_up
kvs_set product.robotid 0123456789abcdef0123456789abcdef
kvs_set robot.name Rosie
start_peers
start_daemon
wait_state 0 60

chapter "Its owner starts the app, which asks for provisioning. The robot opens a soft AP, and the phone joins it."
mark
provisioning_begins

chapter "The phone sends the home's name and password. The robot leaves its soft AP and joins the home."
app_sends
provisioning_succeeds
tell "   -> connected: address $(robot_address), leased from the home's DHCP server; the gateway answered an ARP ping."
tell "   -> the settings are saved, the password only as the key that is made from it."

chapter "The phone is at home too now. Its app looks for robots: one UDP probe to everyone."
home netwardenctl discover --interface br0 | while read -r line; do tell "   $line"; done

chapter "Somebody unplugs the access point."
mark
home_ap_down
wait_state 5 60
chapter "The access point is back. The robot joins again."
mark
home_ap_up
wait_state 1 90
tell "   -> connected again: $(robot_address)"
if log_since_mark | grep -q 'restarting network'; then
    tell "      (the watchdog had missed three answers of the gateway by then, and restarted the network)"
fi

chapter "Now the gateway falls silent: it no longer answers ARP. The robot's watchdog asks every 20 seconds"
tell "and restarts the network after three silent pings."
mark
home_arp_drop on
expect_log 'maximum ping loss count, restarting network' 100
expect_log 'wifi = 11' 60
mark
home_arp_drop off
chapter "The gateway answers again; the restarted network comes up."
wait_state 1 90
sleep 2
tell "   -> connected: $(robot_address). That is the robot's life, day and night."
tells_no_more
