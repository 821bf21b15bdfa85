# Switching tracking off undoes all of it, also when somebody plays with the switch: list, monitor, DHCP mode,
# threads, tools.
# limit: 600 s
kvs_set robot.disc_reconnect_sleep_sec 100000
home_ap_up
device_address() { echo "192.168.77.$((2 + $1))"; }
home_devices 6
home_announce 1 kitchen Speaker _googlecast._tcp cd=CD0001 'md=Home Mini'
robot_in_small_home 255.255.255.192
robot_mdns_up
expect_log 'ready to ping using' 40
state() {
    ls -d /sys/class/net/mon0 /run/netwarden-board/noarp 2>/dev/null || true
    pgrep -lx 'arping|avahi-browse' || true
    echo "$(robot_address), $(daemon_count task) threads, $(daemon_count fd) descriptors"
}
before=$(state)
is_off() { [[ $(state) == "$before" ]]; }
undone() { wait_until "$1" is_off || fail "not undone within $1 s: $(state)
before: $before"; }

step "on, and off again"
tracking_begins
for i in {1..6}; do expect_device 240 $i "$([[ $i != 1 ]] || echo \
    '"google_cd":"CD0001","type":"smart-speaker","name":"Speaker","hostname":"kitchen.local","md":"Home Mini"')"; done
expect_log 'discover threads done' 240
[[ -e /run/netwarden-board/noarp ]]
iw dev mon0 info | grep -q 'type monitor'
mark
track pause
expect_log 'clearing device list' 20
undone 40

step "off in the middle of a sweep"
tracking_begins
expect_log 'starting thread' 60
sleep 3
track stop
expect_log 'stopping pinger early' 20
expect_log 'discover threads done' 20
undone 40

step "on and off 100 times in a minute"
mark
for _ in {1..100}; do
    printf '{"event":"%sWifiDeviceTracking"}\n' start stop
    sleep 0.6
done | mosquitto_pub -q 1 -t brisk/network/events -l
undone 90
[[ ! -e $LAB/daemon.exit ]]
refute_message network/events '"wifi":[^1]'
step "netwarden now holds $(daemon_status VmRSS) kB"
# Nothing is left in the list: with the home's devices gone the next census finds nothing to ping.
sleep 4
mark
sleep 7
refute_log 'pinged|need mac|starting thread'
end mdns   # which remembers what it heard
for i in {1..6}; do ip -n device$i link set eth0 down; done
track start
expect_log 'pinged [0-9]+ active devices' 60
[[ $(log_since_mark | grep -oE -m1 'pinged [0-9]+ active') == 'pinged 0 active' ]]
expect_log 'discover threads done' 300
mark
track stop
undone 40
