# Before and after a scenario (lab/guest/robot), and the robot's broker.

robot_boot() {
    mkdir -p $LAB
    [[ ! -e /lab/put ]] || { networks_up; return; }   # a Debian, which boots itself (system_boots)
    sed -i 's/!syslog, //' /etc/sudoers.d/netwarden   # each command through sudo is logged, for story and lab/compare
    : >"$LAB_LOG"
    : >"$LAB_MESSAGES"
    mark
    hostname robot
    rm -f /dev/log   # devices outlive the robots
    perl /lab/guest/syslogd "$LAB_LOG" 3>&- &
    expect "the system log" 5 test -S /dev/log
    networks_up
    ifup -a
    broker_up
}

networks_up() {
    ip link set lo up
    phone ip link set lo up
    home ip link set lo up
    home ip link add br0 address 02:77:00:00:00:fe type bridge
    home ip addr add $HOME_GATEWAY/24 dev br0
    home ip link set br0 up
}

robot_leave() {
    sync
    dmesg -c >"$LAB_RESULTS/kernel.log" 2>/dev/null
    cp /etc/wpa_supplicant.conf "$LAB_RESULTS/" 2>/dev/null
    true
}

# broker_up: the robot's broker starts; from then on its traffic is noted.
broker_up() {
    background broker mosquitto -c /etc/mosquitto/mosquitto.conf
    expect "the broker" 5 mosquitto_pub -t lab/broker -m up
    mosquitto_sub -q 1 -t '#' -F '%U %t %p' >>"$LAB_MESSAGES" 2>/dev/null 3>&- &
    echo $! >$LAB/recorder.pid
    disown
    expect "the record of the broker's traffic" 5 recorder_is_on
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
