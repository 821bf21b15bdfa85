# An attacker in the home writes what the devices announce, and the tools that the census leans on break. Nothing
# of it runs, nothing hangs, and the census of the others goes on.
# limit: 900 s
kvs_set robot.disc_reconnect_sleep_sec 100000
home_ap_up
device_address() { echo "192.168.77.$((2 + $1))"; }
home_devices 8
mine='touch /tmp/pwned'
long=$(printf '%0215d' 0)
step "services with commands, records and 1300 bytes in their names and texts"
home_announce 1 one "\$($mine);\`$mine\`" _http._tcp "fn='; $mine; '" 'md=\"; reboot; \"' "cd=\$($mine)"
home_announce 2 two '=;wlan0;IPv4;Fake;_x._tcp;local;h;192.168.77.9;1;"fn=Fake"' _http._tcp \
    "a=1"$'\n'"=;wlan0;IPv4;Fake;_http._tcp;local;fake.local;192.168.77.99;80;\"fn=Fake\""
home_announce 3 three "$(printf 'x%.0s' {1..63})" _googlecast._tcp cd=CD md=Home fn=Long \
    1=$long 2=$long 3=$long 4=$long 5=$long 6=$long   # announced in reverse: the names come last
home_announce 4 four 'Second' _http._tcp 'fn=-Iwlan0 $IFS' 'md=| reboot &' 'cd=%s%n%s'
home_announce 5 five '\032\\..\999' _googlecast._tcp cd=CD0005 'md=Home Mini' 'fn=Honest'
step "two devices with one address, one device with forty"
ip -n device7 addr add "$(device_address 6)/24" dev eth0
for i in {21..60}; do echo "addr add 192.168.77.$i/32 dev eth0"; done >$LAB/batch
ip -n device8 -batch $LAB/batch

robot_in_small_home 255.255.255.192
robot_mdns_up 5

honest='"google_cd":"CD0005","type":"smart-speaker","name":"Honest","hostname":"five.local","md":"Home Mini"'
unharmed() {
    [[ ! -e $LAB/daemon.exit && ! -e /tmp/pwned && ! -e $LAB/reboots ]] || fail "harmed by $1"
    (($(daemon_status VmRSS) < 32000)) || fail "netwarden holds $(daemon_status VmRSS) kB after $1"
}

tracking_begins
expect_log 'discover threads done' 400
expect_device 60 5 "$honest"
expect_device 60 7
expect "forty addresses" 120 eval '(($(census_size) >= 48))'
unharmed "what was announced"
refute "a record out of a text" lists fake.local
refute "a record out of a text" lists '"Fake"'
census >"$LAB_RESULTS/census.json"
census | grep -qF "\"mac_address\":\"$(device_mac 3)\",\"name\":\"xxx"
step "$(census_size) addresses listed; netwarden holds $(daemon_status VmRSS) kB"

step "a device changes its address"
ip -n device5 addr del "$(device_address 5)/24" dev eth0
ip -n device5 addr add 192.168.77.62/24 dev eth0
expect "it announces its new address" 60 eval 'avahi-browse -artlp | grep -q "^=;wlan0;IPv4;.*;192\.168\.77\.62;"'
tracking_ends
ip -n device8 link set eth0 down   # its forty addresses have done their part
tracking_begins
expect_device 300 5 "$honest"
tracking_ends

for script in '' 'exec sleep 10'; do
    step "avahi-browse is missing, or it hangs: $script"
    broken /usr/bin/avahi-browse "$script"
    tracking_begins
    expect_device 300 5
    tracking_ends
done

step "avahi-browse prints 100,000 lines, addresses that are none among them"
broken /usr/bin/avahi-browse "awk 'BEGIN { for (i = 0; i < 100000; i++) {
    print \"+;wlan0;IPv4;\" i \";_http._tcp;local\"
    if (i % 1000 == 0) print \"=;wlan0;IPv4;n\" i \";_http._tcp;local;h;192.168.77.62;\$($mine);80;\\\"x\\\"\"
    if (i % 1000 == 1) print \"=;wlan0;IPv4;n;_http._tcp;local;h;\$($mine);80;\\\"x\\\"\"
    if (i % 1000 == 2) print \"=;wlan0;IPv4;n;_http._tcp;local;h;;;;;;\"
    if (i % 1000 == 3) { printf \"=;\"; for (j = 0; j < 10000; j++) printf \"x\"; print \"\" } } }'"
tracking_begins
expect_log 'no valid ip address to ping' 120
expect_device 300 5 '"name":"n0","hostname":"h"'
unharmed "100,000 lines"
tracking_ends 60
repaired /usr/bin/avahi-browse

step "arping is missing"
broken /usr/bin/arping
tracking_begins
expect_log 'discover threads done' 300
refute "a device without arping" lists mac_address
unharmed "a missing arping"
repaired /usr/bin/arping
track stop
sleep 4
tracking_begins
expect_device 300 5 "$honest"
unharmed "all of it"
