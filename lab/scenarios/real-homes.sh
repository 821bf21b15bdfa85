# Access points as homes have them: the page joins the robot to each that it can join, and says of the others why it cannot.
# limit: 900 s
page_on SETUP_FAREWELL_S=0
says() { grep -qE "<div class=no>.*$1.*$2" "$PAGE" || fail "the page does not say why $1 cannot be joined: $(grep 'class=no' "$PAGE")"; }

step "homes that the robot cannot join are listed with the reason"
home_ap_up ssid='Three only' security=wpa3
home_ap_up ssid='Frames' security=pmf radio=2 channel=1
home_ap_up ssid='Office' security=eap radio=3 channel=11
new_robot_up
app_wants_provisioning
phone_at_soft_ap
expect_page 'name=token' 20
says 'Three only' 'WPA3 only'
says Frames 'protected management frames'
says Office '802.1X'
refute "a field for one of them" grep -qE "value=($(hex 'Three only')|$(hex Frames)|$(hex Office))" "$PAGE"
page_post net="$(hex Frames)" pass=12345678
[[ $(page_status) == 422 ]]
app_says '{"event":"btnpress"}'
expect_message robot/debug provabort 30
for radio in 1 2 3; do end ap$radio; done
home_dhcp_up

# The home | its access point | how the robot is joined to it
while IFS='|' read -r -u 4 home ap joined; do
    step "$home"
    eval "home_ap_up ssid='$home' $ap"
    mark
    app_says '{"event":"provisioning"}'
    expect_log 'SoftAP is up' 180
    expect_page "value=$(hex "$home") class=psk" 60
    page_post net="$(hex "$home")" pass="$HOME_KEY"
    [[ $(page_status) == 303 ]]
    expect_message tarn/2/event/network/.* '^\{"event":"resetCloudConnection"\}$' 120
    has_leased_address
    eval "$joined"
    end ap1
done 4<<'HOMES'
WPA2 and WPA3|security=transition|[[ $(station_status key_mgmt) == WPA2-PSK ]]
WPA and WPA2 with TKIP|security=mixed|[[ $(station_status key_mgmt) == WPA*-PSK ]]
Fast transition|security=ft|[[ $(station_status wpa_state) == COMPLETED ]]
Wi-Fi 6 at 5 GHz|security=wifi6 channel=36|[[ $(station_status freq) == 5180 && $(station_status wifi_generation) == 6 ]]
HOMES
