# Before and after a scenario (lab/guest/robot), and the robot's broker.

robot_boot() {
    mkdir -p $LAB
    : >"$LAB_LOG"
    : >"$LAB_MESSAGES"
    mark
    hostname robot
    perl /lab/guest/syslogd "$LAB_LOG" 3>&- &
    wait_until 5 test -S /dev/log
    reset_radios
    ip link set lo up
    ifup -a
    broker_up
}

# The namespaces outlive the robots, so what is in them is made anew.
reset_radios() {
    local interface
    ! ip link show mon0 >/dev/null 2>&1 || iw dev mon0 del
    for interface in wlan0 wlan1; do ip link set $interface down; ip addr flush dev $interface; done
    for interface in wlan2 wlan3 wlan4; do home ip link set $interface down; done
    forget_access_points
    phone ip link set wlan5 down
    phone ip addr flush dev wlan5
    ! home ip link show br0 >/dev/null 2>&1 || home ip link del br0
    home ip link set lo up
    phone ip link set lo up
    home ip link add br0 address 02:77:00:00:00:fe type bridge
    home ip addr add $HOME_GATEWAY/24 dev br0
    home ip link set br0 up
    home_arp_drop off
}

# The kernel lists access points for half a minute after they went, also those of the robot before. A scan begun anew, of
# one frequency, forgets them.
forget_access_points() {
    iw dev wlan0 scan dump | grep -q ^BSS || return 0
    ip link set wlan0 up
    iw dev wlan0 scan freq 2412 flush >/dev/null
    ip link set wlan0 down
}

robot_leave() {
    sync
    dmesg >"$LAB_RESULTS/kernel.log" 2>/dev/null
    cp /etc/wpa_supplicant.conf "$LAB_RESULTS/" 2>/dev/null
    true
}

# broker_up: the robot's broker starts; from then on its traffic is noted.
broker_up() {
    background broker mosquitto -c /etc/mosquitto/mosquitto.conf
    wait_until 5 mosquitto_pub -t lab/broker -m up || fail "the broker does not start"
    mosquitto_sub -q 1 -t '#' -F '%U %t %p' >>"$LAB_MESSAGES" 2>/dev/null 3>&- &
    echo $! >$LAB/recorder.pid
    disown
    wait_until 5 recorder_is_on || fail "the broker's traffic is not recorded"
}

# Asked anew for each broker: a line from the one before proves nothing.
recorder_is_on() {
    local lines
    lines=$(wc -l <"$LAB_MESSAGES")
    mosquitto_pub -q 1 -t lab/recorder -m on
    sleep 0.1
    (($(wc -l <"$LAB_MESSAGES") > lines))
}

# broker_down: the robot's broker goes away.
broker_down() {
    end recorder
    end broker
}
