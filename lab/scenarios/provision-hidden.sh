# limit: 150 s
# The home's access point does not tell its name in its beacons.
home_up hidden=1
kvs_set product.robotid 0123456789ABCDEF
start_peers
start_daemon
wait_state 0 60
provisioning_begins
app_sends
provisioning_succeeds
