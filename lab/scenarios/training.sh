# A local app trains the robot over its soft AP. Training ends by the app's word, by the button, for a provisioning,
# or by itself after two hours without an app; the robot then goes home with what it had saved.
# limit: 7800 s
robot_at_home

says() { expect_message robot/debug "^\{\"command\":\"$1\"\}$" 60; }
# ended WORD...: these, in this order, were all the commands; the soft AP is gone, and the robot is home again.
ended() {
    wait_state 1 90
    expect_netinfo 10
    [[ $(messages_since_mark | sed -n 's/.*{"command":"\(.*\)"}/\1/p' | xargs) == "$*" ]]
    expect_in_order trainstart '"wifi":11,"uap":true' "${!#}" ' network/events \{"wifistat":\{"wifi":1,"uap":false\}\}$'
    [[ ! $(robot_address wlan1) ]]
}

step "the app starts training, comes with its phone, leaves by its word"
mark
app_says '{"event":"training"}'
expect_log 'rx event TRAIN_START in state PS_NONE' 5
says trainstart
phone_join ssid=Plover-0123
phone ping -c1 192.168.10.1
peer_tells 5 '{"event":"localConnect"}'
says trainconnect
app_says '{"uap":true}'
expect_log 'on_mqtt_app_message: received uap json with unsupported value from app' 5
phone_leave
peer_tells 5 '{"event":"localDisconnect"}'
says traindisconnect
app_says '{"uap":false}'
says traindone
ended trainstart trainconnect traindisconnect traindone

step "a provisioning takes over, a training takes over from it, the button ends that"
mark
app_says '{"event":"training"}'
says trainstart
app_wants_provisioning
expect_log 'provisioning started' 60
app_says '{"event":"training"}'
expect_log 'provisioning stopped in state 1' 60
expect "a new soft AP" 60 eval '(($(log_since_mark | grep -c "SoftAP is up") == 3))'
app_says '{"event":"btnpress"}'
ended trainstart trainabort provstart provabort trainstart trainabort

step "nobody comes: two hours pass"
mark
app_says '{"event":"training"}'
says trainstart
began=$SECONDS
expect_log 'rx event TRAIN_ABORT in state TRAINING_MODE' 7300
((SECONDS - began >= 7190))
ended trainstart trainabort
