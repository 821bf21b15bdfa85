# The census of the home's devices, and the hops that go with it.

# robot_tracks: robot at home in that subnet, its sweep done, its log in full: what follows are hops.
robot_tracks() {
    save_small_network
    start_daemon
    wait_state 1 120
    netwardenctl log-level dbg
    mark
    track start
    expect_log 'discover threads done' 60
}

# robot_mdns_up: the robot's own mDNS, which avahi-browse asks; by IPv6 as well.
robot_mdns_up() {
    mkdir -p /run/dbus
    background dbus dbus-daemon --system --nofork --nopidfile
    expect "the system bus" 10 test -S /run/dbus/system_bus_socket
    ip addr add fd77::77/64 dev wlan0 nodad
    background mdns avahi-daemon --no-drop-root --no-chroot --no-rlimits
    expect "the robot's mDNS" 20 grep -q 'Server startup complete' "$LAB_RESULTS/mdns.log"
}

# track start|stop|pause: switches tracking of the home's devices.
track() { publish brisk/network/events "{\"event\":\"$1WifiDeviceTracking\"}"; }

# census: the newest report of the home's devices since the mark.
census() { messages_since_mark | sed -n 's/^[^ ]* robot\/debug \({"wifiDevices":.*\)/\1/p' | tail -1; }

# device I [JSON MEMBERS]: how the census shows it.
device() { echo "{\"mac_address\":\"$(device_mac "$1")\"${2:+,$2}}"; }

# expect_device SECONDS I [JSON MEMBERS]: the newest census lists device I with exactly these.
expect_device() {
    local wanted
    wanted=$(device "$2" "${3-}")
    wait_until "$1" lists "$wanted" || fail "not listed: $wanted in
$(census)"
}
lists() { census | grep -qF -- "$1"; }
