# The owner presses the button at each step of a provisioning: the saved network is rejoined every time. The
# last provisioning status stays what the provisioning came to: 8 when it was about to connect.
# limit: 270 s
robot_at_home

aborted() { # in state $1, leaving status $2
    mark
    app_says '{"event":"btnpress"}'
    expect_message robot/debug '^\{"command":"provabort"\}$' 20
    expect_log "provisioning stopped in state $1" 30
    wait_state 1 90
    [[ $(kvs_get network.ssid) == "$(hex "$HOME_SSID")" && $(kvs_get network.last_prov_status) == "$2" ]]
}

step "while the soft AP waits for settings"
provisioning_begins
aborted 1 1

step "after settings came, before they are used"
mark
app_says '{"event":"provisioning"}'
expect_log 'provisioning started' 60
app_says '{"wlcfg":{"ssid":"aa","pass":"6161616161616161"}}'
expect_log 'rx event PROVISIONING_NETWORK_CONFIG_RX' 10
aborted 2 1

step "while the robot looks for a network that is not there"
mark
app_says '{"event":"provisioning"}'
expect_log 'provisioning started' 60
app_sends ssid=nowhere
wait_state 8 60
aborted 3 8
