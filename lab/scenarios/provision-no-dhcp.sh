# The home gives no address, then one whose gateway does not answer; the app is told both times.
# limit: 540 s
home_ap_up
new_robot_up
provisioning_begins
app_sends
expect_log 'CTRL-EVENT-CONNECTED' 60
provisioning_fails 4 90
expect_log 'wifi_dhcp_timer_tick: DHCP timeout' 1

step "an address, but a silent gateway"
home_dhcp_up
home_arp_drop on
app_sends
expect_log 'lease of 192\.168\.77\.[0-9]+ obtained' 60
# Each of the timer's fifty ticks asks the gateway and waits two seconds for it, twice.
provisioning_fails 4 300

step "the gateway answers"
home_arp_drop off
app_sends
provisioning_succeeds
