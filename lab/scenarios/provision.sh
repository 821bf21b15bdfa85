# A robot without settings is provisioned by its owner's phone: all that is said and done, in its order.
# limit: 240 s
home_up
new_robot_up
expect_message tarn/network/resp/corehub/.* '"cap"' 10
story_begins

step "the user interface starts provisioning; the soft AP comes up"
app_says '{"event":"provisioning"}'
expect_log 'Provisioning attempted but tidelink not connected. Waiting' 5
app_says '{"event":"tidelinkConnected"}'
expect_log 'SoftAP is up' 60
phone_join ssid=Plover-0123
expect_message robot/debug softapconnect 15

step "the phone sends the home's settings; the robot joins"
app_says '{"wlcfg":{"ssid":"4c616220486f6d65","pass":"636f727265637420686f727365203432"},"robotpass":"secret9"}'
expect_log 'COMMAND=.*provision --clmode dhcp' 5
app_says '{"uap":false}'
provisioning_succeeds

step "all of it in its order"
# Two passes of the supervision loop look for the address; either may be the first to find it.
connected='network/events {"wifistat":{"wifi":1,"uap":false}}
brisk/robot/events {"wifistat":{"wifi":1,"uap":false}}'
early='' late=$connected state=8
if story | grep -A1 '% wpa_cli' | grep '"wifi":1'; then early=$connected late='' state=1; fi
sed '/^$/d' <<STORY | diff -U 100 - <(story) || fail "another story"
brisk/network/events {"event":"provisioning"}
brisk/network/events {"event":"tidelinkConnected"}
robot/debug {"command":"provstart"}
tarn/5/req/network/ID {"event":"disconnect_local"}
% ifdown wlan0
% network_device_interfaces_control.sh --interface=monitor --action=del
% network_device_interfaces_control.sh --interface=softap --action=add
% provision --apssid Plover-0123 --apchan 6 --aphwmode g
% ifdown wlan1
% ifup wlan1
robot/debug {"command":"softapconnect"}
brisk/network/events {"wlcfg":{"ssid":"4c616220486f6d65","pass":"636f727265637420686f727365203432"},"robotpass":"secret9"}
% provision --clmode dhcp
brisk/network/events {"uap":false}
tarn/5/req/network/ID {"event":"disconnect_local"}
% hostapd_cli -iwlan1 disassociate 02:00:00:00:05:00
% ifdown wlan1
% network_device_interfaces_control.sh --interface=softap --action=del
network/events {"wifistat":{"wifi":8,"uap":false}}
brisk/robot/events {"wifistat":{"wifi":8,"uap":false}}
% ifdown wlan0
% ifup wlan0
% wpa_cli -iwlan0 reconfigure
$early
network/events {"wifistat":{"wifi":$state,"uap":false}}
brisk/robot/events {"wifistat":{"wifi":$state,"uap":false}}
network/events {"netinfo":{"dhcp":true,"addr":"ADDRESS","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"192.168.77.1","dns2":"0.0.0.0","bssid":"02:00:00:00:02:00","sec":4}}
tarn/btmanager/req/network/ID {"netinfo":{"dhcp":true,"addr":"ADDRESS","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"192.168.77.1","dns2":"0.0.0.0","bssid":"02:00:00:00:02:00","sec":4}}
local/cmd {"command":"ipdone"}
$late
brisk/network/events {"command":"ipdone"}
tarn/2/event/network/ID {"event":"resetCloudConnection"}
% ifdown wlan1
% network_device_interfaces_control.sh --interface=softap --action=del
network/events {"netinfo":{"dhcp":true,"addr":"ADDRESS","mask":"255.255.255.0","gw":"192.168.77.1","dns1":"192.168.77.1","dns2":"0.0.0.0","bssid":"02:00:00:00:02:00","sec":4}}
network/events {"wifistat":{"wifi":1,"uap":false}}
brisk/robot/events {"wifistat":{"wifi":1,"uap":false}}
network/events {"wlcfg":{"sec":4,"ssid":"4c616220486f6d65"}}
STORY
[[ $(kvs_get robot.password) == secret9 ]]
