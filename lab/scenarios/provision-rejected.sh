# The access point refuses the robot; the owner changes that.
# limit: 240 s
home_up rejects=1
new_robot_up
provisioning_begins
app_sends
expect_log 'connection to AP rejected' 60
provisioning_fails 6 60

step "it is let in"
home_ap_restart
app_sends
provisioning_succeeds
