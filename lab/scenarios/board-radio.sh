# The board's scripts on real cfg80211: the regulatory domain, a monitor beside the station on one
# radio, and the diagnostic log while joined.
# limit: 180 s
country() { iw reg get | awk '/country/ {print $2}' | cut -d ':' -f1 | head -1; }

step "the kernel follows the stored regulatory domain at ifup"
home_up
network_conf
provision --clmode dhcp --clregdomain jp
ifup wlan0
[[ $(country) == JP ]]
provision --clregdomain WO
ifdown wlan0
ifup wlan0
[[ $(country) == 00 ]]
expect "an address for wlan0" 60 has_leased_address

step "a monitor shares the station's radio"
network_device_interfaces_control.sh --interface=softap --action=del
network_device_interfaces_control.sh --interface=monitor --action=add
ifup mon0
iw dev mon0 info | grep -q 'type monitor'
[[ $(iw dev mon0 info | grep wiphy) == "$(iw dev wlan0 info | grep wiphy)" ]]
has_leased_address
ifdown mon0
network_device_interfaces_control.sh --interface=monitor --action=del
refute "mon0 is still there" iw dev mon0 info
ifconfig wlan1 | grep -q HWaddr

step "the soft AP in a country of its own"
provision --apssid Plover-ABCD --apchan 6 --aphwmode g --clregdomain US
ifup wlan1
[[ $(country) == US ]]
[[ $(iw dev wlan1 info | sed -n 's/.*type //p') == AP ]]
[[ -S /var/run/hostapd/p2p0 ]]
ifdown wlan1

step "the diagnostic log of a joined robot"
/opt/halvik/bin/wifilogs.sh >"$LAB_RESULTS/wifilogs.txt"
grep -q wpa_state=COMPLETED "$LAB_RESULTS/wifilogs.txt"
grep -q "signal" "$LAB_RESULTS/wifilogs.txt"
refute "the key is in the log" grep -q "$HOME_KEY" "$LAB_RESULTS/wifilogs.txt"

step "ifdown and ifup ten times over"
for _ in 1 2 3 4 5 6 7 8 9 10; do
    ifdown wlan0
    ifup wlan0
done
expect "an address for wlan0" 60 has_leased_address
[[ $(pgrep -xc wpa_supplicant) == 1 && $(pgrep -xc udhcpc) == 1 ]]
