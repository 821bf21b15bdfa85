# The survey before each hop: every access point of the home with its address, strength and channel, published
# for whoever looks for the cause of a bad link, and noted in the census.
# limit: 420 s
kvs_set product.regdom US
kvs_set robot.disc_reconnect_sleep_sec 4
home_ap_up channel=1 radio=1
home_ap_up channel=36 radio=2
home_ap_up channel=149 radio=3
home_ap_power 2 10
home_ap_power 3 5
robot_tracks

entry() { printf '{"bssid":"%s","rssi":%d,"freq":%d}' "$(home_bssid "$1")" "$2" "$3"; }
surveys() { messages_since_mark | grep -F ' robot/debug {"wifiScanResults":['; }
surveyed() {
    local wanted
    for wanted; do surveys | tail -1 | grep -qF "$wanted" || return 1; done
}
complete() { surveyed "$(entry 1 -30 2412)" "$(entry 2 -40 5180)" "$(entry 3 -45 5745)"; }
expect "a survey of all three" 90 complete || surveys
step "three access points at -30, -40 and -45 dBm"
expect_message robot/debug '^\{"wifiScanResults":\[(\{"bssid":"[0-9a-f:]{17}","rssi":-[0-9]+,"freq":[0-9]+\},?){3}\]\}$' 1
for radio in 1 2 3; do
    expect "access point $radio is in the census" 30 lists \
        "{\"mac_address\":\"$(home_bssid $radio)\",\"type\":\"access-point\"}"
done

step "one of them grows louder"
mark
home_ap_power 3 20
expect_log "Found best channel for band 5: $(home_bssid 3)\(5745\): -30" 60
surveyed "$(entry 3 -30 5745)"
