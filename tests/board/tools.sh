# shellcheck shell=bash disable=SC2154
# Everything but ifup and ifdown. Sourced by cases.sh.

# refused ARGUMENT...: an error is said and every stored setting stays.
refused() {
    cat "$state"/* >/tmp/before
    exits 64 provision "$@" 2>/tmp/said
    [ -s /tmp/said ]
    cat "$state"/* | cmp - /tmp/before
}

refuses_bad_arguments() {
    provision --clmode dhcp --apssid Plover-AB12 --apchan 6 --aphwmode g --clregdomain US
    for row in --clmode '--clmode pppoe' '--clmode dhcp --clmode dhcp' '--clipaddr 192.168.1.2' dhcp \
        '--clmode dhcp --clipaddr 192.168.1.2' '--clmode --clregdomain' '--clregdomain $(id)' \
        '--clregdomain US --clmode dhpc' '--apssid P --apchan 6' '--apssid P --apchan 14 --aphwmode g' \
        '--apssid 123456789012345678901234567890123 --apchan 6 --aphwmode g'; do
        # shellcheck disable=SC2086
        refused $row
    done
    refused --apssid $'Plover\nwpa=2' --apchan 6 --aphwmode g
    while read -r a m g d e; do
        refused --clmode static --clipaddr "$a" --clnetmask "$m" --clgw "$g" --cldnsns1 "$d" --cldnsns2 "$e"
    done <<'ROWS'
192.168.1.256 255.255.255.0 192.168.1.1 8.8.8.8 #
192.168.1.2;reboot 255.255.255.0 192.168.1.1 8.8.8.8 #
192.168.1.2 255.255.0.255 192.168.1.1 8.8.8.8 #
192.168.1.2 255.255.255.0 192.168.2.1 8.8.8.8 #
192.168.1.255 255.255.255.0 192.168.1.1 8.8.8.8 #
192.168.1.2 255.255.255.0 192.168.1.1 # #
192.168.1.2 255.255.255.0 192.168.1.1 8.8.8.8 0.0.0.0
ROWS
}

# The exact texts that netwarden hands to the shell, and reads from it.
takes_the_lines_of_the_daemon() {
    eval 'provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 --cldnsns1 10.1.2.1  --cldnsns2 "#" 
'
    [ "$(tr '\n' ' ' <"$state"/client)" = 'CLMODE=static CLIPADDR=10.1.2.3 CLNETMASK=255.255.255.0 CLGW=10.1.2.1 CLDNSNS1=10.1.2.1 CLDNSNS2=# ' ]
    eval 'provision --apssid Plover-A_-1 --apchan 6 --aphwmode g --clregdomain "#" 
'
    [ "$(tr '\n' ' ' <"$state"/softap)" = 'APSSID=Plover-A_-1 APCHAN=6 APHWMODE=g ' ]
    provision | grep -qx "CL REG DOMAIN : #"
}

# The same settings again must not touch the flash; a failed write must keep the old file.
writes_whole_or_not_at_all() {
    mount -t tmpfs -o size=8k none "$state"
    provision --clmode dhcp
    inode=$(stat -c %i:%Y "$state"/client)
    provision --clmode dhcp
    [ "$inode" = "$(stat -c %i:%Y "$state"/client)" ]
    dd if=/dev/zero of="$state"/filler bs=4096 count=8 || true
    exits 73 provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 \
        --cldnsns1 10.1.2.1 --cldnsns2 '#'
    [ "$(cat "$state"/client) $(ls -A "$state")" = $'CLMODE=dhcp client\nfiller' ]
    umount "$state"
    gone /tmp/provision.lock # the daemon holds it while provision runs
}

# The daemon's own pipelines.
versions_are_found() {
    # shellcheck disable=SC2016
    echo 'PRODUCT_VERSION="lewis-3.12.7: $(reboot)"' >/etc/product-release
    [ "$(version | grep "Product Version: " | sed s/"^.*: "//)" = lewis-3.12.7reboot ]
    printf 'LANGUAGE_PACK_ID=7\nLANGUAGE_PACK_VERSION="1.2"\nEXTRA_LANGUAGE_PACK_ID=9\n' >/etc/language-pack
    [ "$(get_lang.sh -lve | grep EXTRA_LANGUAGE_PACK_ID | cut -d '=' -f2)" = 9 ]
}

# may ARGUMENT...: whether sudo would run it for the user that netwarden runs as.
may() { sudo -n -l -U netwarden -- "$@"; }

# each COMMAND...: with every command line of standard input behind it, "|" between two.
each() {
    local line
    while read -r -d '|' line; do
        eval "$* $line"
    done
}

sudo_runs_the_lines_of_the_daemon_and_no_others() {
    echo 'netwarden:x:990:990::/:/bin/sh' >>/etc/passwd
    visudo -c -f /etc/sudoers.d/netwarden
    each may <<'LINES'
ifup wlan0 | ifdown p2p0 | ifup mon0 | ifdown wlp2s0.1_a-b | version | provision | /sbin/reboot |
network_device_interfaces_control.sh --interface=monitor --action=del |
network_device_interfaces_control.sh --interface=softap --action=add |
network_dhcp_arp_control.sh enable | network_dhcp_arp_control.sh disable | provision --clmode dhcp |
provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 --cldnsns1 10.1.2.1  --cldnsns2 "#" |
provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 --cldnsns1 10.1.2.1  --cldnsns2 9.9.9.9 |
provision --apssid Plover-A_-1 --apchan 6 --aphwmode g | provision --apssid Plover- --apchan 11 --aphwmode g |
provision --clregdomain "#" | provision --clregdomain US | provision --clregdomain 00 |
wpa_cli -iwlan0 reconfigure | wpa_cli -iwlan0 select_network 0 | wpa_cli -iwlan0 status |
hostapd_cli -ip2p0 all_sta | hostapd_cli -iwlan1 disassociate 02:00:00:00:0a:ff |
arping -Iwlan0 -c1 192.168.100.254 -w 2 | arping -Iwlan0 -c2 -f 10.0.0.1 | arping -q -Iwlan0 -c2 -f 10.0.0.1 |
webserver_control.sh stop | /usr/bin/webserver_control.sh start | /opt/halvik/bin/wifilogs.sh |
LINES
    each exits 1 may <<'LINES'
ifup -i /tmp/interfaces wlan0 | ifup -a | ifup -i | ifup | ifup wlan0 -i /tmp/interfaces | ifup wlan0 wlan1 |
ifup "wlan0 -i /tmp/interfaces" | ifup ../wlan0 | ifup wlan0=/tmp/interfaces | ifup "wlan?" |
ifup wlan0123456789ab | ifdown -f wlan0 | ifdown $'wlan0\n' | ifdown $'wlan0\n-i' | /tmp/ifup wlan0 |
wpa_cli | wpa_cli -a /tmp/action | wpa_cli -iwlan0 -a /tmp/action | wpa_cli "-iwlan0 -a/tmp/action" status |
wpa_cli -P /tmp/pid -B | wpa_cli -iwlan0 -P /tmp/pid -B | wpa_cli -i/../../../tmp/fake status |
wpa_cli -p/tmp -iwlan0 status | wpa_cli -iwlan0 status -a /tmp/action | wpa_cli -iwlan0 select_network 1 |
wpa_cli -iwlan0 set pkcs11_module_path /tmp/lib | hostapd_cli -a /tmp/action |
hostapd_cli -ip2p0 all_sta -a /tmp/action | hostapd_cli -iwlan1 disassociate "02:00:00:00:00:01 x" |
hostapd_cli -iwlan1 disassociate 02:00:00:00:00:01 -a /tmp/action |
arping -Iwlan0 -c1 192.168.100.254 -w 20 | arping -Iwlan0 -c9 192.168.100.254 -w 2 |
arping -s 10.0.0.2 -Iwlan0 -c2 -f 10.0.0.1 | arping -Iwlan0 -c2 -f 10.0.0.1 10.0.0.2 | arping -Iwlan0 -c2 -f some.host |
provision --clmode | provision --clmode dhcp --clregdomain US | provision --clregdomain "$(printf 'US\nx')" |
provision --clregdomain /etc/shadow | provision --apssid "Plover-A B" --apchan 6 --aphwmode g |
provision --apssid Plover-A --apchan 6 --aphwmode g --clmode dhcp |
provision --clmode static --clipaddr 10.1.2.3 --clnetmask 255.255.255.0 --clgw 10.1.2.1 --cldnsns1 "10.1.2.1 --x" --cldnsns2 "#" |
network_device_interfaces_control.sh --interface=softap --action=add --action=del |
network_dhcp_arp_control.sh enable x | webserver_control.sh restart | version -h | reboot -f |
/opt/halvik/bin/../bin/wifilogs.sh x | sh -c id |
LINES
}

web_server_and_broker_listen_on_loopback_only() {
    webserver_control.sh stop
    webserver_control.sh start
    wget -q -O - http://127.0.0.1:8080/cgi-bin/status | grep 'CL REG DOMAIN'
    mosquitto -c /etc/mosquitto/mosquitto.conf &
    until_true 5 mosquitto_pub -h 127.0.0.1 -t a -m b
    [ "$(netstat -ltn | grep -Eo '[0-9.:]+:(8080|1883) ' | sort)" = $'127.0.0.1:1883 \n127.0.0.1:8080 ' ]
    webserver_control.sh stop
    exits 1 eval "netstat -ltn | grep ':8080 '"
    kill $!
}

# A whole log through the daemon's masking: no name, address or secret may come out at its end, and
# what tells the reason must. Tools that hang must not hold it up: that takes its time, in which the
# other cases run.
begin_wifi_log() {
    printf '%s\n' 'network={' ssid=53656372657448 "psk=$(printf %064d 7)" wep_key0=6b65793133 scan_ssid=1 '}' \
        >/etc/wpa_supplicant.conf
    cat >/var/log/messages <<'LOG'
wpa_supplicant: wlan0: Trying to associate with 02:00:00:00:00:01 (SSID='SecretHome' freq=2412 MHz)
wpa_supplicant: wlan0: CTRL-EVENT-SSID-TEMP-DISABLED id=0 ssid="Secret"Home" auth_failures=1 duration=10 reason=WRONG_KEY
Nov 22 10:00:01 robot daemon.notice network[812]: [DBG] (src/a:1) rx {"wlcfg":{"ssid":"53656372657448","pass":"7061\"7373"},"robotpass": "open\\\"sesame","wactivate":true}
Nov 22 10:00:02 robot daemon.notice network[812]: [DBG] (src/a:1) rx {"pass" :?"hunter2","ssid":12345678, "p\u0061ss":"hunter3", "chan":6}
Nov 22 10:00:03 robot daemon.notice network[812]: [DBG] (src/a:1) rx {"n":1,"pass":"hunter4 cut here
Nov 22 10:00:04 robot daemon.notice network[812]: Provisioning for SSID SecretHome
Nov 22 10:00:05 robot daemon.err network[812]: [ERROR] (src/a:2) failed to configure sta to 53656372657448; check kvs
Nov 22 10:00:06 robot daemon.err network[812]: [ERROR] (src/a:3)
                                  MODULE : netwarden CMD (sudo provision) failed
Nov 22 10:00:07 robot daemon.notice other[9]: private
LOG
    stand_in wpa_cli <<'WPA'
case $2 in
ping) echo PONG ;;
status) printf 'bssid=02:00:00:00:00:01\nssid=SecretHome\nkey_mgmt=WPA2-PSK\n' ;;
scan_results) printf 'bssid / frequency / signal level / flags / ssid\n02:00:00:00:00:01\t2412\t-40\t[WPA2-PSK-CCMP][ESS]\tSecretHome\n' ;;
signal_poll) exec sleep 100 ;;
esac
WPA
    stand_in iw <<<'[ "$3" != link ] || exec sleep 100'
    timeout 50 /opt/halvik/bin/wifilogs.sh >/tmp/wifi.log &
    wifi_log=$!
}

wifi_log_shows_no_secret() {
    [ "$wifi_log" -eq 0 ]
    exits 1 grep -n 'Secret\|53656372\|0000007\|6b657931\|7373\|sesame\|hunter\|12345678\|private' /tmp/wifi.log
    [ "$(grep -c ' network\[812\]: ' /tmp/wifi.log)" -eq 6 ]
    sed -E 's/(SSID[: ]? ).*/\1******** /gI;s/([[:xdigit:]]{2}:){5}[[:xdigit:]]{2}/**:**:**:**:**:**/g
        s/(ssid=).*[#\t]/\1******** /gI;s/^ssid=.*/ssid=******** /g' /tmp/wifi.log >/tmp/masked.log
    exits 1 grep -n '02:00:00' /tmp/masked.log
    for text in reason=WRONG_KEY '"wactivate":true}' '"chan":6}' 'MODULE : netwarden CMD' '2412	-40	.WPA2-PSK-CCMP' scan_ssid=1 'CL MODE : ' '==== kernel'; do
        grep -q -- "$text" /tmp/masked.log
    done
}

check sudo_runs_the_lines_of_the_daemon_and_no_others
begin_wifi_log
check refuses_bad_arguments takes_the_lines_of_the_daemon writes_whole_or_not_at_all versions_are_found \
    web_server_and_broker_listen_on_loopback_only
wait "$wifi_log"
wifi_log=$?
check wifi_log_shows_no_secret
