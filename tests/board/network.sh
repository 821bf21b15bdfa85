# shellcheck shell=bash disable=SC2154
# ifup and ifdown on virtual Ethernet pairs: wlan0 with the home behind it, wlan1 with a phone.
# The supplicant and hostapd are the real ones with their drivers for wired networks. Sourced by
# cases.sh.

pidfile=/var/run/udhcpc.wlan0.pid

# far NAME: a network of its own, for the other end of a pair; its pid is printed.
far() {
    unshare -n sleep 600 >/dev/null 2>&1 &
    echo $!
}

home() {
    nsenter -n -t "$home_pid" -- "$@"
}

phone() {
    nsenter -n -t "$phone_pid" -- "$@"
}

make_networks() {
    home_pid=$(far)
    phone_pid=$(far)
    sleep 0.2
    /full-ip link add wlan0 type veth peer name home0 || return
    /full-ip link add wlan1 type veth peer name phone0 || return
    /full-ip link set home0 netns "$home_pid" && /full-ip link set phone0 netns "$phone_pid" || return
    home /full-ip link set lo up
    home /full-ip link set home0 up
    home /full-ip addr add 10.9.0.1/24 broadcast + dev home0
    phone /full-ip link set phone0 up
    cat >>/etc/netwarden-board/board.conf <<'CONF'
WPA_DRIVER=wired
CONF
    sed -i 's/^driver=.*/driver=wired/' /etc/netwarden-board/hostapd.conf.template
    rm -rf "$state"
    ifup -a && [ -e /run/ifstate ]
}

# dhcp_server ROUTER DNS...
dhcp_server() {
    cat >/tmp/home.conf <<CONF
interface home0
start 10.9.0.50
end 10.9.0.50
lease_file /tmp/home.leases
pidfile /tmp/home.pid
option subnet 255.255.255.0
option router $1
option dns ${*:2}
option domain nameserver.example
option lease 600
CONF
    : >/tmp/home.leases
    home busybox udhcpd -S /tmp/home.conf
}

end_dhcp_server() {
    kill "$(cat /tmp/home.pid)" && until_true 3 test ! -e /tmp/home.pid
}

# The command line of every process.
processes() {
    local file
    for file in /proc/[0-9]*/cmdline; do
        tr '\0' ' ' <"$file" && echo
    done 2>/dev/null
}

has_address() {
    ip -4 addr show dev "$1" | grep -q "inet $2 "
}

clean() {
    local left
    left=$(ip -4 addr show dev wlan0 | grep inet
        ip route show dev wlan0
        cat /etc/resolv.conf
        ls /var/run/udhcpc.* 2>/dev/null
        processes | grep -E '[w]pa_supplicant|[u]dhcpc')
    equal '' "$left"
}

ifdown_of_what_is_down_succeeds() {
    local i
    for i in wlan0 wlan1 mon0; do
        ifdown $i || return
        ifdown $i || return
    done
    ! ifup mon0 || return
    ! ifup nosuch0
}

dhcp_round_trip() {
    dhcp_server 10.9.0.1 10.9.0.1 9.9.9.9 || return
    provision --clmode dhcp
    ifup wlan0 || return
    until_true 10 has_address wlan0 10.9.0.50/24 || return
    until_true 3 grep -q 9.9.9.9 /etc/resolv.conf || return
    equal 'nameserver 10.9.0.1
nameserver 9.9.9.9' "$(cat /etc/resolv.conf)" || return
    equal 'default via 10.9.0.1' "$(ip route show | grep -o 'default via [0-9.]*')" || return
    [ -S /var/run/wpa_supplicant/wlan0 ] || return
    equal apps "$(stat -c %G /var/run/wpa_supplicant/wlan0)" || return
    equal 600 "$(stat -c %a /etc/wpa_supplicant.conf)" || return
    [ "$(wpa_cli -iwlan0 ping)" = PONG ]
}

# As netwarden does it: signal 16 to the process in the file. The server now says something else.
renews_by_signal() {
    end_dhcp_server && dhcp_server 10.9.0.254 8.8.4.4 || return
    local pid
    pid=$(cat $pidfile)
    kill -16 "$pid" || return
    until_true 10 grep -qx 'nameserver 8.8.4.4' /etc/resolv.conf || return
    equal 'default via 10.9.0.254' "$(ip route show | grep -o 'default via [0-9.]*')" || return
    equal "$pid" "$(cat $pidfile)" || return
    kill -0 "$pid"
}

# The mode changes while a lease is held: the address must not be missed for a moment.
no_arp_mode_keeps_the_address() {
    /full-ip -4 monitor address dev wlan0 >/tmp/changes &
    local monitor=$!
    network_dhcp_arp_control.sh enable || return
    network_dhcp_arp_control.sh enable || return
    until_true 3 grep -qx 'nameserver 8.8.4.4' /etc/resolv.conf
    processes | grep 'udhcpc .*-s /etc' | grep -q -- ' -a' && return 1
    network_dhcp_arp_control.sh disable || return
    processes | grep 'udhcpc .*-s /etc' | grep -q -- ' -a' || return
    sleep 1
    kill $monitor
    has_address wlan0 10.9.0.50/24 || return
    ! grep Deleted /tmp/changes
}

ifdown_clears_everything() {
    ifdown wlan0 || return
    clean
}

ifup_does_not_wait_for_a_lease() {
    end_dhcp_server
    local start=$SECONDS
    ifup wlan0 || return
    [ $((SECONDS - start)) -le 3 ] || return
    kill -16 "$(cat $pidfile)"
    sleep 0.5
    kill -0 "$(cat $pidfile)" || return
    dhcp_server 10.9.0.1 10.9.0.1
    until_true 15 has_address wlan0 10.9.0.50/24 || return
    end_dhcp_server
}

# The mode changes between up and down, as in every provisioning.
static_round_trip() {
    provision --clmode static --clipaddr 10.9.0.7 --clnetmask 255.255.255.0 --clgw 10.9.0.1 \
        --cldnsns1 10.9.0.1 --cldnsns2 '#' || return
    ifdown wlan0 && clean || return
    ifup wlan0 || return
    has_address wlan0 10.9.0.7/24 || return
    equal 'nameserver 10.9.0.1' "$(cat /etc/resolv.conf)" || return
    [ ! -e $pidfile ] || return
    arping -I wlan0 -c1 -w 2 10.9.0.1 | grep Unicast || return
    provision --clmode dhcp
    ifdown wlan0 && clean
}

lost_settings_fall_back_to_dhcp() {
    printf 'CLMODE=static\nCLIPADDR=10.9.' >"$state"/client
    ifup wlan0 || return
    [ -e $pidfile ] || return
    ifdown wlan0 && clean
}

# A supplicant that cannot start leaves nothing behind, and the next ifup works.
ifup_after_a_failure() {
    cp /etc/wpa_supplicant.conf /tmp/good.conf
    echo 'network={' >/etc/wpa_supplicant.conf
    ! ifup wlan0 || return
    clean || return
    cp /tmp/good.conf /etc/wpa_supplicant.conf
    ifup wlan0 || return
    # Whoever killed it, ifdown and ifup bring it back.
    kill -9 "$(cat /run/netwarden-board/wpa_supplicant.wlan0.pid)" "$(cat $pidfile)"
    ifdown wlan0 && clean && ifup wlan0 && [ "$(wpa_cli -iwlan0 ping)" = PONG ] || return
    ifdown wlan0 && clean
}

# A pid file may name a process that has nothing to do with it.
stale_pid_file_harms_nobody() {
    sleep 600 &
    echo $! >$pidfile
    /usr/lib/netwarden-board/station down || return
    kill $!
}

soft_ap_round_trip() {
    rm -rf "$state"
    ! ifup wlan1 || return
    provision --apssid Plover-AB12 --apchan 6 --aphwmode g || return
    ifup wlan1 || return
    has_address wlan1 192.168.10.1/24 || return
    grep -qx 'ssid2=506c6f7665722d41423132' /run/netwarden-board/hostapd.wlan1.conf || return
    ! grep -q '@\|country' /run/netwarden-board/hostapd.wlan1.conf || return
    hostapd_cli -ip2p0 all_sta || return
    [ "$(hostapd_cli -iwlan1 ping)" = PONG ] || return
    phone busybox udhcpc -i phone0 -n -q -t 5 -T 1 -s /test/lease.sh || return
    # An address of the range, a mask, and neither router nor name server.
    grep -Ex '192\.168\.10\.1[0-2][0-9] 255\.255\.255\.0  ' /tmp/phone.lease || return
    ifdown wlan1 || return
    [ ! -e /var/run/hostapd/wlan1 ] && [ ! -L /var/run/hostapd/p2p0 ] || return
    ! has_address wlan1 192.168.10.1/24 || return
    equal '' "$(processes | grep -E '^[^ ]*(hostapd|udhcpd) ')" || return
    provision --clregdomain US && ifup wlan1 &&
        grep -qx country_code=US /run/netwarden-board/hostapd.wlan1.conf && ifdown wlan1
}

missing_interface_is_said() {
    /full-ip link del wlan1
    exits 69 /usr/lib/netwarden-board/softap up || return
    /usr/lib/netwarden-board/softap down || return
    ifup wlan0 && /full-ip link del wlan0 && ifdown wlan0 || return
    equal '' "$(processes | grep -E '[w]pa_supplicant|[u]dhcpc')" || return
    exits 69 /usr/lib/netwarden-board/station up
}

if make_networks; then
    check "ifdown of what is not up succeeds" ifdown_of_what_is_down_succeeds
    check "ifup wlan0 gets a lease, name servers and a route" dhcp_round_trip
    check "signal 16 to the pid file renews the lease" renews_by_signal
    check "the no-ARP mode changes without losing the address" no_arp_mode_keeps_the_address
    check "ifdown wlan0 clears everything" ifdown_clears_everything
    check "ifup wlan0 does not wait for a lease" ifup_does_not_wait_for_a_lease
    check "a static address comes and goes" static_round_trip
    check "lost settings fall back to DHCP" lost_settings_fall_back_to_dhcp
    check "ifup works again after a failure" ifup_after_a_failure
    check "a stale pid file harms nobody" stale_pid_file_harms_nobody
    check "the soft AP comes and goes, and the phone gets a lease" soft_ap_round_trip
    check "a missing interface is said" missing_interface_is_said
else
    check "virtual networks can be made" false
fi
