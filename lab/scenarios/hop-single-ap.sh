# One access point, another on its channel, and a neighbour's network on a channel of its own: no hop.
# limit: 420 s
kvs_set product.regdom US
kvs_set robot.disc_reconnect_sleep_sec 2
home_ap_up channel=6 radio=1
home_ap_up ssid=Neighbour key= security=open channel=36 radio=2
robot_tracks

stays() {
    mark
    expect_log 'failed to get bssid to switch to' 60
    expect_log 'failed to get bssid to switch to' 60
    refute_log 'Roaming|could not get current bssid|failed to'' roam'
    [[ $(station_status bssid) == "$1" ]]
}
step "the home's only access point"
stays "$(home_bssid 1)"
expect_message robot/debug "\\{\"bssid\":\"$(home_bssid 1)\",\"rssi\":-?[0-9]+,\"freq\":2437\\}" 1

step "a second one on the same channel"
home_ap_up channel=6 radio=3
bssid=$(station_status bssid)
mark
expect_message robot/debug "\\{\"bssid\":\"$(home_bssid 3)\",\"rssi\":-?[0-9]+,\"freq\":2437\\}" 60
stays "$bssid"
refute_message network/events '"wifi":[^1]'
