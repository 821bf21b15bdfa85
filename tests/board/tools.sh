# shellcheck shell=bash disable=SC2154
# The other scripts and configuration files. Sourced by cases.sh after network.sh, without wlan0 and
# wlan1. Where a radio is needed, a stand-in for `iw` or `wpa_cli` in /usr/local/sbin answers.

# stand_in NAME: the script on standard input becomes the first NAME in every script's PATH.
stand_in() {
    mkdir -p /usr/local/sbin
    { echo '#!/bin/bash' && cat; } >"/usr/local/sbin/$1"
    chmod +x "/usr/local/sbin/$1"
}

interfaces_control() {
    network_device_interfaces_control.sh "--interface=$1" "--action=$2"
}

# What the kernel then has of wlan1 and mon0.
present() {
    local iface
    for iface in wlan1 mon0; do
        ! /full-ip link show dev $iface >/dev/null 2>&1 || echo -n "$iface "
    done
}

one_radio_is_shared() {
    stand_in iw <<'IW'
echo "$*" >>/tmp/iw.calls
[ ! -e /tmp/iw.refuses ] || exit 240
case "$*" in
"dev wlan0 interface add "*) exec /full-ip link add "$5" type veth peer name "$5-far" ;;
"dev "*" del") exec /full-ip link del "$2" ;;
esac
IW
    exits 69 interfaces_control softap add || return
    /full-ip link add wlan0 type veth peer name wlan0-far
    interfaces_control softap del && equal '' "$(present)" || return
    interfaces_control softap add && interfaces_control softap add || return
    equal 'wlan1 ' "$(present)" || return
    interfaces_control softap del && interfaces_control monitor add || return
    equal 'mon0 ' "$(present)" || return
    ifup mon0 && ifdown mon0 && interfaces_control monitor del && interfaces_control monitor del || return
    equal '' "$(present)" || return
    equal 'dev wlan0 interface add wlan1 type __ap
dev wlan1 del
dev wlan0 interface add mon0 type monitor
dev mon0 del' "$(cat /tmp/iw.calls)" || return
    touch /tmp/iw.refuses
    exits 69 interfaces_control monitor add || return
    rm /tmp/iw.refuses /tmp/iw.calls
}

own_radio_is_left_alone() {
    /full-ip link add wlan1 type veth peer name wlan1-far
    interfaces_control softap add && interfaces_control softap del || return
    equal 'wlan1 ' "$(present)" || return
    [ ! -e /tmp/iw.calls ]
    local result=$?
    rm /usr/local/sbin/iw
    /full-ip link del wlan1
    /full-ip link del wlan0
    return $result
}

wrong_arguments_are_refused() {
    local line bad=0
    while read -r line; do
        # shellcheck disable=SC2086
        exits 64 $line || bad=1
    done <<'LINES'
network_device_interfaces_control.sh
network_device_interfaces_control.sh --interface=softap
network_device_interfaces_control.sh --interface=wlan1 --action=add
network_device_interfaces_control.sh --interface=softap --action=remove
network_dhcp_arp_control.sh
network_dhcp_arp_control.sh on
network_dhcp_arp_control.sh enable enable
webserver_control.sh
webserver_control.sh restart
version 1
get_lang.sh
get_lang.sh -e
get_lang.sh -x
get_lang.sh -lve more
/opt/halvik/bin/wifilogs.sh all
/usr/lib/netwarden-board/station
/usr/lib/netwarden-board/softap restart
/etc/udhcpc/default.script
LINES
    return $bad
}

# The daemon's own pipelines.
version_is_found() {
    # shellcheck disable=SC2016
    echo 'PRODUCT_VERSION="lewis-3.12.7: $(reboot)"' >/etc/product-release
    equal 'lewis-3.12.7reboot' "$(version | grep "Product Version: " | sed s/"^.*: "//)" || return
    rm /etc/product-release
    equal 12 "$(version | grep "Product Version: " | sed s/"^.*: "// | cut -d . -f 1)"
}

language_packs_are_found() {
    printf 'LANGUAGE_PACK_ID=7\nLANGUAGE_PACK_VERSION="1.2"\nEXTRA_LANGUAGE_PACK_ID=9\n' >/etc/language-pack
    equal 9 "$(get_lang.sh -lve | grep EXTRA_LANGUAGE_PACK_ID | cut -d '=' -f2)" || return
    equal 'LANGUAGE_PACK_ID=7 EXTRA_LANGUAGE_PACK_ID=9 LANGUAGE_PACK_VERSION=1.2 EXTRA_LANGUAGE_VERSION= ' \
        "$(get_lang.sh -lve | tr '\n' ' ')" || return
    equal 'LANGUAGE_PACK_VERSION=1.2' "$(get_lang.sh -v)" || return
    rm /etc/language-pack
    equal 4 "$(get_lang.sh -lve | wc -l)"
}

status_page() {
    wget -q -O - http://127.0.0.1:8080/cgi-bin/status
}

web_server_starts_and_stops() {
    webserver_control.sh stop || return
    webserver_control.sh start && webserver_control.sh start || return
    status_page | grep 'CL REG DOMAIN' || return
    equal 1 "$(netstat -ltn | grep -c ':8080 ')" || return
    netstat -ltn | grep -q '127.0.0.1:8080 ' || return
    webserver_control.sh stop && ! status_page || return
    httpd -f -p 127.0.0.1:8080 -h /tmp &
    until_true 3 eval "netstat -ltn | grep -q ':8080 '" || return
    exits 69 webserver_control.sh start
    local result=$?
    kill $!
    return $result
}

# A whole log through the daemon's masking: no name, address or secret may come out at its end, and
# what tells the reason must.
wifi_log_shows_no_secret() {
    cat >/etc/wpa_supplicant.conf <<'CONF'
network={
	ssid=53656372657448
	psk=00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff
	wep_key0=6b65793133
	scan_ssid=1
}
CONF
    mkdir -p /var/log
    cat >/var/log/messages <<'LOG'
wpa_supplicant: wlan0: Trying to associate with 02:00:00:00:00:01 (SSID='SecretHome' freq=2412 MHz)
wpa_supplicant: wlan0: CTRL-EVENT-SSID-TEMP-DISABLED id=0 ssid="Secret"Home" auth_failures=1 duration=10 reason=WRONG_KEY
netwarden: payload {"wlcfg":{"ssid":"53656372657448","pass":"70617373"},"robotpass": "opensesame"}
netwarden: Provisioning for SSID SecretHome
dropbear: SecretHome is nobody's business here
LOG
    stand_in wpa_cli <<'WPA'
case $2 in
ping) echo PONG ;;
status) printf 'bssid=02:00:00:00:00:01\nfreq=2412\nssid=SecretHome\nkey_mgmt=WPA2-PSK\n' ;;
list_networks) printf 'network id / ssid / bssid / flags\n0\tSecretHome\tany\t[CURRENT]\n' ;;
scan_results) printf 'bssid / frequency / signal level / flags / ssid\n02:00:00:00:00:01\t2412\t-40\t[WPA2-PSK-CCMP][ESS]\tSecretHome\n' ;;
esac
WPA
    timeout 60 /opt/halvik/bin/wifilogs.sh >/tmp/wifi.log || return
    rm /usr/local/sbin/wpa_cli
    ! grep -n 'Secret\|53656372\|00112233\|6b657931\|70617373\|opensesame' /tmp/wifi.log || return
    sed -E 's/(SSID[: ]? ).*/\1******** /gI' /tmp/wifi.log |
        sed -E 's/([[:xdigit:]]{2}:){5}[[:xdigit:]]{2}/**:**:**:**:**:**/g' |
        sed -E 's/(ssid=).*[#\t]/\1******** /gI' | sed -E 's/^ssid=.*/ssid=******** /g' >/tmp/masked.log
    ! grep -n '02:00:00' /tmp/masked.log || return
    local text
    for text in reason=WRONG_KEY freq=2412 key_mgmt=WPA2-PSK '2412	-40	.WPA2-PSK-CCMP' \
        scan_ssid=1 '==== addresses' 'CL MODE : dhcp' 'Product Version'; do
        grep -q -- "$text" /tmp/masked.log || {
            echo "no '$text' in:"
            sed '/^==== kernel/,/^====/d' /tmp/masked.log
            return 1
        }
    done
}

# A supplicant that hangs must not hold up the capture.
wifi_log_ends_by_itself() {
    # shellcheck disable=SC2016
    stand_in wpa_cli <<<'[ "$2" != ping ] || exec echo PONG; exec sleep 100'
    stand_in iw <<<'exec sleep 100'
    local start=$SECONDS
    timeout 60 /opt/halvik/bin/wifilogs.sh >/tmp/wifi.log
    local result=$?
    rm /usr/local/sbin/*
    equal 0 $result && [ $((SECONDS - start)) -le 40 ] && grep -q '==== kernel' /tmp/wifi.log
}

configuration_is_accepted() {
    visudo -c -f /etc/sudoers.d/netwarden || return
    mosquitto -c /etc/mosquitto/mosquitto.conf &
    local broker=$!
    until_true 5 mosquitto_pub -h 127.0.0.1 -t a -m b || return
    equal 127.0.0.1:1883 "$(netstat -ltn | grep -o '[0-9.:]*:1883')" || return
    kill $broker
}

check "interfaces are added to a shared radio and removed" one_radio_is_shared
check "an interface with a radio of its own is left alone" own_radio_is_left_alone
check "wrong arguments are refused" wrong_arguments_are_refused
check "the product version is found" version_is_found
check "the language packs are found" language_packs_are_found
check "the status page is served on loopback only" web_server_starts_and_stops
check "the Wi-Fi log shows no secret" wifi_log_shows_no_secret
check "the Wi-Fi log ends by itself" wifi_log_ends_by_itself
check "sudo and the broker accept their configuration" configuration_is_accepted
