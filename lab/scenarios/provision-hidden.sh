# The home's access point does not tell its name in its beacons.
# limit: 150 s
home_up hidden=1
new_robot_up
provisioning_begins
app_sends
provisioning_succeeds
