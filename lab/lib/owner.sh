# The robot's owner: a phone, and the app on it. What the app says reaches the daemon through the robot's other
# processes, on the broker.

# phone_join [ssid=..] [key=..]: the owner's phone joins a network (no key: open) and gets an address there.
phone_join() {
    local ssid=$HOME_SSID key=
    options "ssid key" "$@"
    {
        printf '%s\n' "ctrl_interface=$LAB/phone" 'network={' "ssid=$(hex "$ssid")" scan_ssid=1
        if [[ $key ]]; then echo "psk=\"$key\""; else echo "key_mgmt=NONE"; fi
        echo "}"
    } >$LAB/phone.conf
    background phone "${in_phone[@]}" wpa_supplicant -Dnl80211 -iwlan5 -c$LAB/phone.conf
    expect "the phone joins $ssid" 40 phone_is_associated
    phone udhcpc -f -n -q -t 10 -T 2 -i wlan5 -s /lab/guest/phone-lease >>"$LAB_RESULTS/phone.log" 2>&1 3>&- ||
        fail "the phone gets no address from $ssid"
}

phone_is_associated() { phone wpa_cli -p $LAB/phone -i wlan5 status | grep -q wpa_state=COMPLETED; }

# phone_leave: the phone leaves the network.
phone_leave() {
    end phone
    phone ip addr flush dev wlan5
}

# app_says JSON
app_says() { publish brisk/network/events "$1"; }

# app_wants_provisioning: the app is there, and asks for it.
app_wants_provisioning() {
    app_says '{"event":"tidelinkConnected"}'
    app_says '{"event":"provisioning"}'
}

# provisioning_begins: the app asks for it, the soft AP comes up, the phone joins.
provisioning_begins() {
    app_wants_provisioning
    expect_message robot/debug '^\{"command":"provstart"\}$' 10
    expect_log 'SoftAP is up' 60
    phone_join ssid="Plover-$(kvs_get product.robotid | cut -c1-4)"
    expect_message robot/debug '^\{"command":"softapconnect"\}$' 15
    phone_leave
}

# app_sends [ssid=..] [key=..] [more=JSON MEMBERS]: the home's settings, and leave to use them.
app_sends() {
    local ssid=$HOME_SSID key=$HOME_KEY more=
    options "ssid key more" "$@"
    mark
    app_says "{\"wlcfg\":{\"ssid\":\"$(hex "$ssid")\",\"pass\":\"$(hex "$key")\"${more:+,$more}},\"wactivate\":true}"
}

# provisioning_fails STATE SECONDS: the robot tells the app STATE, keeps it, and waits for new settings.
provisioning_fails() {
    wait_state "$1" "$2"
    expect_message tarn/btmanager/req/network/.* "\{\"wifistat\":\{\"wifi\":$1,\"uap\":(true|false)\}\}" 5
    [[ $(kvs_get network.last_prov_status) == "$1" ]]
    refute_message network/events '"wifi":1,'
    expect "the address goes" 15 has_no_address
}

# provisioning_succeeds [SSID [SECRET AS SAVED]]: the robot connects, the app says ipdone, the settings are saved.
provisioning_succeeds() {
    wait_state 1 90
    expect_message local/cmd '^\{"command":"ipdone"\}$' 20
    app_says '{"command":"ipdone"}'
    expect_message tarn/2/event/network/.* '^\{"event":"resetCloudConnection"\}$' 15
    expect_log 'rx event PROVISIONING_COMPLETE in state WAITING_FOR_IP_DONE' 1
    expect_message network/events '"wlcfg"' 10
    [[ $(kvs_get network.last_prov_status) == 1 ]]
    [[ $(kvs_get network.ssid) == "$(hex "${1-$HOME_SSID}")" ]]
    if (($# == 0)); then set -- "$HOME_SSID" "$(psk_of "$HOME_SSID" "$HOME_KEY")"; fi
    if [[ ${2-} ]]; then [[ $(kvs_get network.password) == "$2" ]]; else [[ ! -e $STORE/network.password ]]; fi
}
