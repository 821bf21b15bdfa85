# The census of the home's devices, and the hops that go with it.

# track start|stop|pause: switches tracking of the home's devices.
track() { publish brisk/network/events "{\"event\":\"$1WifiDeviceTracking\"}"; }

tracking_begins() {
    mark
    track start
}

# tracking_ends [SECONDS]: it is switched off, and what was listed is forgotten.
tracking_ends() {
    track stop
    expect_log 'clearing device list' "${1:-30}"
}

# robot_in_small_home [MASK]: has joined, with the address 192.168.77.2 in a subnet of six, soon swept.
robot_in_small_home() {
    save_network
    kvs_set network.addr_type 0
    kvs_set network.ip_config "sudo provision --clmode static --clipaddr 192.168.77.2 --clnetmask ${1:-255.255.255.248} \
--clgw $HOME_GATEWAY --cldnsns1 $HOME_GATEWAY --cldnsns2 $HOME_GATEWAY"
    start_daemon
    wait_state 1 120
}

# robot_tracks: such a robot, its sweep done, its log in full: what follows are hops.
robot_tracks() {
    robot_in_small_home
    netwardenctl log-level dbg
    tracking_begins
    expect_log 'discover threads done' 60
}

# robot_mdns_up [N]: the robot's own mDNS, which avahi-browse asks; by IPv6 as well. It hears N services.
robot_mdns_up() {
    mkdir -p /run/dbus
    background dbus dbus-daemon --system --nofork --nopidfile
    expect "the system bus" 10 test -S /run/dbus/system_bus_socket
    ip addr add fd77::77/64 dev wlan0 nodad
    background mdns avahi-daemon --no-drop-root --no-chroot --no-rlimits
    expect_from mdns 'Server startup complete' 20
    [[ ! ${1-} ]] || expect "$1 services are heard" 60 hears_services "$1"
}

hears_services() {
    avahi-browse -artlp >"$LAB_RESULTS/browse.txt"
    (($(grep -c "^=;wlan0;IPv4" "$LAB_RESULTS/browse.txt") >= $1))
}

# census: the newest report of the home's devices since the mark; census_size: how many it lists.
census() { messages_since_mark | sed -n 's/^[^ ]* robot\/debug \({"wifiDevices":.*\)/\1/p' | tail -1; }
census_size() { census | grep -o mac_address | wc -l; }

# expect_device SECONDS I [JSON MEMBERS]: the newest census lists device I with exactly these.
expect_device() {
    local wanted
    wanted="{\"mac_address\":\"$(device_mac "$2")\"${3:+,$3}}"
    wait_until "$1" lists "$wanted" || fail "not listed: $wanted in
$(census)"
}
lists() { census | grep -qF -- "$1"; }
