# shellcheck shell=bash disable=SC2154
# ifup and ifdown on a virtual Ethernet pair: wlan0 with the home behind it. The supplicant is the
# real one with its driver for wired networks. Sourced by cases.sh.
pidfile=/var/run/udhcpc.wlan0.pid

home() { nsenter -n -t "$home_pid" -- "$@"; }
has_address() { ip -4 addr show dev "$1" | grep -q "inet $2 "; }
has_gateway() { ip route show | grep -q "default via $1 "; }
in_own_network() { [ "$(readlink "/proc/$1/ns/net")" != "$(readlink /proc/self/ns/net)" ]; }

make_networks() {
    /full-ip link add wlan0 type veth peer name home0 netns "$home_pid"
    home /full-ip link set home0 up
    home /full-ip addr add 10.9.0.1/24 broadcast + dev home0
    printf '%s\n' WPA_DRIVER=wired DHCP_PAUSE_S=1 DHCP_ARP_MS=100 >>/etc/netwarden-board/board.conf
    rm -rf "$state"
    ifup -a
}

# dhcp_server ROUTER DNS...
dhcp_server() {
    printf '%s\n' 'interface home0' 'start 10.9.0.50' 'end 10.9.0.50' 'lease_file /tmp/home.leases' \
        'pidfile /tmp/home.pid' 'option subnet 255.255.255.0' "option router $1" \
        "option dns ${*:2}" 'option lease 600' >/tmp/home.conf
    : >/tmp/home.leases
    [ ! -e /tmp/home.pid ] || { kill "$(cat /tmp/home.pid)" && until_true 3 gone /tmp/home.pid; }
    home busybox udhcpd -S /tmp/home.conf
}

no_arp_probe() { ! ps | grep '[u]dhcpc .*-s /etc' | grep -q -- ' -a'; }

# ifdown leaves nothing behind, and succeeds again where nothing is up.
goes_down_clean() {
    ifdown wlan0
    ifdown wlan0
    [ "$(ip -4 addr show dev wlan0 | grep inet
        ip route show dev wlan0
        cat /etc/resolv.conf
        ls /var/run/udhcpc.* 2>/dev/null
        ps | grep -E '[w]pa_supplicant|[u]dhcpc')" = '' ]
}

ifup_gets_a_lease_and_does_not_wait_for_it() {
    provision --clmode dhcp
    timeout 4 ifup wlan0
    dhcp_server 10.9.0.1 10.9.0.1 9.9.9.9
    kill -16 "$(cat $pidfile)"
    until_true 15 has_address wlan0 10.9.0.50/24
    until_true 3 grep -qx 'nameserver 9.9.9.9' /etc/resolv.conf
    [ "$(stat -c %G /var/run/wpa_supplicant/wlan0) $(stat -c %a /etc/wpa_supplicant.conf)" = 'apps 600' ]
}

# As netwarden does it: signal 16 to the process in the file. The server now says something else.
renews_by_signal() {
    dhcp_server 10.9.0.254 8.8.4.4
    kill -16 "$(cat $pidfile)"
    until_true 10 grep -qx 'nameserver 8.8.4.4' /etc/resolv.conf
    until_true 5 has_gateway 10.9.0.254
    kill -0 "$(cat $pidfile)"
}

# The mode changes while a lease is held: the address must not be missed for a moment.
no_arp_mode_keeps_the_address() {
    /full-ip -4 monitor address dev wlan0 >/tmp/changes &
    for mode in 'enable 0' 'disable 1'; do
        : >/etc/resolv.conf
        network_dhcp_arp_control.sh "${mode% *}"
        exits "${mode#* }" no_arp_probe
        until_true 10 grep -q 8.8.4.4 /etc/resolv.conf # the new client has its lease
    done
    kill $!
    has_address wlan0 10.9.0.50/24
    exits 1 grep Deleted /tmp/changes
}

# The mode changes between up and down, as in every provisioning.
static_address_comes_and_goes() {
    provision --clmode static --clipaddr 10.9.0.7 --clnetmask 255.255.255.0 --clgw 10.9.0.1 \
        --cldnsns1 10.9.0.1 --cldnsns2 '#'
    goes_down_clean
    ifup wlan0
    has_address wlan0 10.9.0.7/24
    [ "$(cat /etc/resolv.conf)" = 'nameserver 10.9.0.1' ]
    gone $pidfile
    printf 'CLMODE=static\nCLIPADDR=10.9.' >"$state"/client # torn: DHCP
    goes_down_clean
    ifup wlan0
    [ -e $pidfile ]
}

# Whoever killed them, a supplicant that cannot start, a pid file that names somebody else's process.
comes_back_after_a_failure() {
    kill -9 "$(cat /run/netwarden-board/wpa_supplicant.wlan0.pid)" "$(cat $pidfile)"
    goes_down_clean
    echo 'network={' >>/etc/wpa_supplicant.conf
    exits 1 ifup wlan0
    goes_down_clean
    sed -i '$d' /etc/wpa_supplicant.conf
    ifup wlan0
    [ "$(wpa_cli -iwlan0 ping)" = PONG ]
    goes_down_clean
    sleep 600 &
    echo $! >$pidfile
    /usr/lib/netwarden-board/station down
    kill $!
    /full-ip link del wlan0
    exits 69 /usr/lib/netwarden-board/station up
}

unshare -n sleep 600 &
home_pid=$!
until_true 5 in_own_network $home_pid
check make_networks ifup_gets_a_lease_and_does_not_wait_for_it renews_by_signal \
    no_arp_mode_keeps_the_address static_address_comes_and_goes comes_back_after_a_failure
