# The home: its access points, DHCP, name server, gateway and devices.

# home COMMAND..., phone COMMAND...: runs it in the home's or the phone's network.
home() { "${in_home[@]}" "$@"; }
phone() { "${in_phone[@]}" "$@"; }
in_home=(nsenter --net=/run/netns/home)
in_phone=(nsenter --net=/run/netns/phone)

# home_ap_up [ssid=..] [key=..] [security=wpa2|wpa|open|wep|wpa3|transition|pmf|mixed|ft|wifi6|eap] [channel=N] [radio=1|2|3] [hidden=1] [rejects=1] [beacon=MS]:
# an access point; a hidden one does not beacon its name, one that rejects refuses every association; it beacons each 100 ms.
home_ap_up() {
    local ssid=$HOME_SSID key=$HOME_KEY security=wpa2 channel=6 radio=1 hidden=0 rejects=0 beacon=100 mode=g
    options "ssid key security channel radio hidden rejects beacon" "$@"
    local interface=wlan$((radio + 1)) conf=$LAB/ap$radio.conf
    ((channel <= 14)) || mode=a
    {
        printf '%s\n' interface=$interface driver=nl80211 bridge=br0 ctrl_interface=$LAB/hostapd \
            logger_syslog=0 ssid2="$(hex "$ssid")" hw_mode=$mode channel=$channel ignore_broadcast_ssid=$hidden beacon_int=$beacon
        # World-wide rules allow no access point at 5 GHz.
        ((channel <= 14)) || echo country_code=US
        # A station sleeps through more beacons than one: status 51, listen interval too large.
        if ((rejects)); then echo max_listen_interval=1; fi
        case $security in
        wpa2) printf '%s\n' wpa=2 wpa_key_mgmt=WPA-PSK rsn_pairwise=CCMP wpa_passphrase="$key" ;;
        wpa) printf '%s\n' wpa=1 wpa_key_mgmt=WPA-PSK wpa_pairwise=TKIP wpa_passphrase="$key" ;;
        wpa3) printf '%s\n' wpa=2 wpa_key_mgmt=SAE rsn_pairwise=CCMP ieee80211w=2 sae_password="$key" ;;
        transition) printf '%s\n' wpa=2 wpa_key_mgmt='WPA-PSK SAE' rsn_pairwise=CCMP ieee80211w=1 wpa_passphrase="$key" ;;
        pmf) printf '%s\n' wpa=2 wpa_key_mgmt='WPA-PSK WPA-PSK-SHA256' rsn_pairwise=CCMP ieee80211w=2 wpa_passphrase="$key" ;;
        mixed) printf '%s\n' wpa=3 wpa_key_mgmt=WPA-PSK wpa_pairwise=TKIP rsn_pairwise='TKIP CCMP' wpa_passphrase="$key" ;;
        ft) printf '%s\n' wpa=2 wpa_key_mgmt='WPA-PSK FT-PSK' rsn_pairwise=CCMP wpa_passphrase="$key" mobility_domain=a1b2 \
            nas_identifier=lab ft_psk_generate_local=1 ;;
        wifi6) printf '%s\n' wpa=2 wpa_key_mgmt=WPA-PSK rsn_pairwise=CCMP wpa_passphrase="$key" ieee80211n=1 ieee80211ac=1 \
            ieee80211ax=1 wmm_enabled=1 ;;
        eap) printf '%s\n' wpa=2 wpa_key_mgmt=WPA-EAP rsn_pairwise=CCMP ieee8021x=1 eap_server=1 eap_user_file=/dev/null ;;
        wep) printf '%s\n' auth_algs=3 wep_default_key=0 wep_key0="$(hex "$key")" ;;
        open) ;;
        *) fail "home_ap_up: no security $security" ;;
        esac
    } >"$conf"
    background "ap$radio" "${in_home[@]}" hostapd -t "$conf"
    expect_from "ap$radio" AP-ENABLED 20
}

# home_ap_restart [OPTION OF home_ap_up...]: the access point of radio 1 says farewell to its stations and is there
# again a moment later.
home_ap_restart() {
    end ap1
    home_ap_up "$@"
}

# home_ap_down: the access point of radio 1 loses its power: no farewell to the stations.
home_ap_down() {
    end ap1 -KILL
    home ip link set wlan2 down
}

# home_bssid [RADIO]: the access point's address, in lower case.
home_bssid() { home ip -o link show wlan$((${1:-1} + 1)) | sed 's/.*link.ether \([^ ]*\).*/\1/'; }

# shellcheck disable=SC2119,SC2120 # the options are for scenarios
# home_dhcp_up [DNSMASQ OPTION...]: addresses 192.168.77.100 to .150 for an hour ($HOME_LEASE), gateway and name server 192.168.77.1.
home_dhcp_up() {
    background dhcp "${in_home[@]}" dnsmasq --keep-in-foreground --log-facility=- --conf-file=/dev/null \
        --user=root --pid-file --dhcp-leasefile=$LAB/leases --interface=br0 --bind-interfaces --no-ping \
        --no-resolv --no-hosts --dhcp-authoritative --address=/gateway.home/$HOME_GATEWAY \
        --dhcp-range=192.168.77.100,192.168.77.150,255.255.255.0,${HOME_LEASE:-1h} "$@"
    expect_from dhcp 'DHCP, sockets bound' 10
}

# home_arp_drop on|off: the gateway stops answering ARP.
home_arp_drop() {
    case $1 in
    on) home sysctl -qw net.ipv4.conf.br0.arp_ignore=8 ;;
    off) home sysctl -qw net.ipv4.conf.br0.arp_ignore=0 ;;
    *) fail "home_arp_drop: not $1" ;;
    esac
}

# home_up [OPTION OF home_ap_up...]: a whole home: access point, DHCP, name server, gateway.
home_up() {
    home_ap_up "$@"
    home_dhcp_up
}

# home_ap_power RADIO DBM: how loud it is; the robot's radio hears -30 dBm from one that sends with 20.
home_ap_power() { home iw dev wlan$(($1 + 1)) set txpower fixed $(($2 * 100)); }

# home_devices N: device1 to deviceN, namespaces behind the home's bridge that answer ARP and IPv6.
home_devices() {
    local i
    for ((i = 1; i <= $1; i++)); do
        ip netns add device$i
        home ip link add device$i type veth peer name eth0 address "$(device_mac $i)" netns device$i
        home ip link set device$i master br0 up
        ip -n device$i -batch - <<BATCH
addr add $(device_address $i)/24 dev eth0
addr add fd77::$i/64 dev eth0 nodad
link set lo up
link set eth0 up
BATCH
    done
}

# device_address I, device_mac I: all over the subnet, outside of what DHCP gives away.
device_address() { echo "192.168.77.$((10 + $1 / 2 * 8 + $1 % 2 * 150))"; }
device_mac() { printf '02:77:00:00:00:%02d\n' "$1"; }

# home_announce I HOST-NAME NAME TYPE [TXT...]: device I announces a service by a real avahi-daemon of its own.
home_announce() {
    local folder=$LAB/device$1 device=$1 host=$2 name=$3 type=$4 text
    shift 4
    mkdir -p "$folder" /run/avahi-daemon
    {
        echo "<service-group><name>$(xml "$name")</name><service><type>$type</type><port>8009</port>"
        for text; do echo "<txt-record>$(xml "$text")</txt-record>"; done
        echo "</service></service-group>"
    } >"$folder/$type.new"
    mv "$folder/$type.new" "$folder/$type.service"
    [[ ! -e $LAB/avahi$device.pid ]] || return 0   # it sees the new file itself
    printf '%s\n' '[server]' host-name="$host" enable-dbus=no '[publish]' publish-hinfo=no \
        publish-workstation=no >"$folder/conf"
    background "avahi$device" nsenter --net=/run/netns/device$device unshare -m sh -c "
        mount --bind $folder /etc/avahi/services && mount -t tmpfs none /run/avahi-daemon &&
        exec avahi-daemon --file=$folder/conf --no-drop-root --no-chroot --no-rlimits --no-proc-title"
    expect_from "avahi$device" 'successfully established' 20
}
xml() { printf %s "$1" | sed 's/&/\&amp;/g; s/</\&lt;/g'; }
