# What scripts/demo --phone shows: the robot waits for somebody at its page, and is told as what happens to it happens.
# limit: 3600 s

tells_live 'SoftAP is|rx event|network block generated|Connection established|CTRL-EVENT-(CONNECTED|DISCONNECTED)|wifi = '
chapter "A home: \"$HOME_SSID\", with the password \"$HOME_KEY\". Beside it a neighbour with WPA3 only, and a café."
page_on
home_up
home_ap_up ssid='Neighbour 3' security=wpa3 radio=2 channel=1
home_ap_up ssid='Café Zürich' security=open radio=3 channel=11
home_ap_power 2 10
home_ap_power 3 5
kvs_set product.robotid 0123456789abcdef0123456789abcdef
start_peers
start_daemon
wait_state 0 60
chapter "Somebody presses the robot's button. It looks around and opens its soft AP; a phone joins it."
mark
app_wants_provisioning
phone_at_soft_ap
expect_page 'name=token' 20
phone_forwards
chapter "Your browser is that phone's now:   http://127.0.0.1:$(</lab/port)/"
tell "Pick \"$HOME_SSID\". A wrong password is worth a try, too."
expect_message tarn/2/event/network/.* '^\{"event":"resetCloudConnection"\}$' 3500
wait_state 1 30
tell "   -> connected: $(robot_address). The soft AP is down, and with it the page."
tells_no_more
