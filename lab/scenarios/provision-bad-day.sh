# Whatever can fail around a provisioning fails: the robot stays provisionable, and is provisioned in the end.
# limit: 420 s
home_up
new_robot_up --mode 5=silent --mode 0=wrong --mode 12=late
app_says '{"event":"tidelinkConnected"}'

step "the soft AP does not start; the Wi-Fi log cannot be made"
broken /usr/sbin/hostapd
broken /opt/halvik/bin/wifilogs.sh
app_says '{"event":"provisioning"}'
expect_log 'ifup wlan1 returned status' 60
expect_log 'provisioning started' 5
repaired /usr/sbin/hostapd
sleep 1   # the button is debounced for a second
app_says '{"event":"btnpress"}'
expect_message robot/debug '^\{"command":"provabort"\}$' 10
expect_log 'failed to get ssid' 30

step "a thousand messages in a second, and what no parser should be given"
mark
for _ in {1..1000}; do echo '{"event":"training"}'; done | mosquitto_pub -q 1 -t brisk/network/events -l
{ printf '{"wlcfg":{"ssid":"'; head -c 60000 /dev/zero | tr '\0' a; echo '"}}'; } | mosquitto_pub -q 1 -t brisk/network/events -s
{ head -c 30000 /dev/zero | tr '\0' '['; } | mosquitto_pub -q 1 -t brisk/network/events -s
head -c 5000 /dev/urandom | mosquitto_pub -q 1 -t network/debug -s
app_says '{"event":{"event":1},"command":[],"wlcfg":null,"cap":null}'
app_says '{"wlcfg":{"ssid":7,"pass":"zz","chan":"x","addr":1,"dns1":[]},"robotpass":1,"wactivate":1}'
expect_log 'json_loads\(\) failed' 10
expect_log 'Pass string in unexpected format' 10
sleep 3

step "the phone joins and leaves, with other processes silent or late"
mark
app_says '{"event":"provisioning"}'
expect_log 'Error publishing .* tarn request' 30
expect_log 'provisioning started' 60
phone_join ssid=Plover-0123
phone_leave
phone_join ssid=Plover-0123
expect_message robot/debug softapconnect 15
phone_leave
app_sends
provisioning_succeeds
