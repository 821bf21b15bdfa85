# The network is not there: the app is told so; then its access point is switched on.
# limit: 240 s
new_robot_up
provisioning_begins
app_sends
provisioning_fails 2 90

step "the access point vanishes in the middle of it"
home_ap_up
app_sends
expect_log 'CTRL-EVENT-CONNECTED' 60
home_ap_down
provisioning_fails 4 90

step "the owner finds the plug"
home_up
app_sends
provisioning_succeeds
