# The owner mistypes the password: the app is told so, and the robot takes the right one at the second try.
# limit: 270 s
home_up
new_robot_up
provisioning_begins

step "the wrong password"
app_sends key='mistyped horse'
expect_log 'rx event PROVISIONING_RETRY_PASSWORD in state WAITING_FOR_DHCP_COMPLETE' 60
provisioning_fails 3 60
expect_log 'rx event PROVISIONING_ERROR in state WAITING_FOR_DHCP_COMPLETE' 1
[[ ! -e $STORE/network.ssid ]]

step "a password that fits no kind of network"
app_sends key=seven77
provisioning_fails 3 30

step "the right one"
app_sends
provisioning_succeeds
! grep -F -e 'mistyped horse' -e "$(psk_of "$HOME_SSID" "$HOME_KEY")" "$LAB_LOG" || fail "a secret is in the log"
