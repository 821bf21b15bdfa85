# Provisioning's ways to fail: the app is told why, nothing is saved, the robot waits for the next try and takes it. Each
# owner succeeds at last, and gives the robot, wiped, to the next.
# limit: 1200 s
connected() { expect_log CTRL-EVENT-CONNECTED 60; }
leased() { expect_log 'lease of 192\.168\.77\.[0-9]+ obtained' 60; }

next_owner() {
    stop_daemon
    ifdown wlan0
    mark
    start_daemon --wipe
    wait_state 0 60
}

# The state that the app is told and within how many seconds (- when it succeeds) | the try | how the home is changed for
# it | the options of app_sends | what is done meanwhile | what the log has said of it by then.
owner=new
new_robot_up
while IFS='|' read -r -u 4 told try before sent meanwhile log; do
    [[ $owner != next ]] || next_owner
    step $try   # not quoted, and so without the blanks at its ends
    eval "$before"
    [[ $owner == same ]] || provisioning_begins
    eval "app_sends $sent"
    eval "$meanwhile"
    if [[ $told == -* ]]; then
        provisioning_succeeds
        owner=next
    else
        provisioning_fails $told
        expect_log "${log# }" 1
        expect_log 'rx event PROVISIONING_ERROR in state WAITING_FOR_DHCP_COMPLETE' 1
        [[ ! -e $STORE/network.ssid ]]
        owner=same
    fi
done 4<<'TRIES'
2 90  | no such network                  | | | |
4 90  | the access point vanishes        | home_ap_up | | connected; home_ap_down |
-     | the owner finds the plug         | home_up    | | |
3 120 | a mistyped password              | | key='mistyped horse' | | rx event PROVISIONING_RETRY_PASSWORD in state WAITING_FOR_DHCP_COMPLETE
3 30  | a password that fits no security | | key=seven77 | |
-     | the right one                    | | | |
6 120 | the access point refuses it      | home_ap_restart rejects=1 | | | connection to AP rejected
-     | it is let in                     | home_ap_restart | | |
4 90  | the home gives no address        | end dhcp | | connected | wifi_dhcp_timer_tick: DHCP timeout
4 300 | an address, but a silent gateway | home_dhcp_up; home_arp_drop on | | leased |
-     | the gateway answers              | home_arp_drop off | | |
TRIES
refute_text 'mistyped horse' "$(psk_of "$HOME_SSID" "$HOME_KEY")"
