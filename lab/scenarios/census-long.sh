# A home of a hundred devices that announce all they can, ten of which are not there: the census is longer than 64 KiB,
# and it arrives.
# limit: 900 s
kvs_set robot.disc_reconnect_sleep_sec 100000
home_ap_up
home_devices 1
ip -n device1 route add local 10.9.0.0/24 dev lo   # it answers for all of these
robot_in_small_home
quotes=$(printf '"%.0s' {1..400})   # two characters each in JSON
for i in {1..100}; do
    echo "=;wlan0;IPv4;device $i;_http._tcp;local;$quotes;10.$((i % 10 ? 9 : 8)).0.$i;80;\"md=M\""
done >$LAB/browse
printf '#!/bin/sh\ncat %s\n' $LAB/browse >/usr/bin/avahi-browse
tracking_begins
listed() { census | grep -o '"device ' | wc -l; }
expect "ninety in the census" 500 eval '(($(listed) == 90))'
size=$(census | wc -c)
((size > 65536)) || fail "the census has $size bytes only"
step "a census of $size bytes; netwarden's peak $(daemon_status VmHWM) kB"
(($(daemon_status VmHWM) < 32000))
tracking_ends 60
