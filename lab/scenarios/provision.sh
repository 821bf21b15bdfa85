# limit: 240 s
# A robot without settings is provisioned by its owner's phone, and is found by an app at home afterwards.
home_up
kvs_set product.robotid 0123456789ABCDEF
start_peers
start_daemon
wait_state 0 60

step "the user interface starts provisioning; the soft AP comes up"
publish brisk/network/events '{"event":"provisioning"}'
expect_log 'Provisioning attempted but tidelink not connected. Waiting' 5
publish brisk/network/events '{"event":"tidelinkConnected"}'
expect_message robot/debug '^\{"command":"provstart"\}$' 10
expect_log 'SoftAP is up' 60
phone_join ssid=Plover-0123
expect_message robot/debug '^\{"command":"softapconnect"\}$' 15

step "the phone sends the home's settings; the robot joins"
publish brisk/network/events "{\"wlcfg\":{\"ssid\":\"$(hex "$HOME_SSID")\",\"pass\":\"$(hex "$HOME_KEY")\"},\"robotpass\":\"secret9\",\"wactivate\":true}"
wait_state 8 40
wait_state 1 60
expect_message local/cmd '^\{"command":"ipdone"\}$' 20
publish brisk/network/events '{"command":"ipdone"}'
expect_log 'rx event PROVISIONING_COMPLETE in state WAITING_FOR_IP_DONE' 10
expect_in_order provstart softapconnect '"wlcfg"' '"wifi":8,' '"wifi":1,' ipdone

step "the settings are saved, the password as its key"
[[ $(kvs_get network.ssid) == "$(hex "$HOME_SSID")" ]]
[[ $(kvs_get network.password) == "$(psk_of "$HOME_SSID" "$HOME_KEY")" ]]
[[ $(kvs_get robot.password) == secret9 ]]
[[ $(kvs_get network.last_prov_status) == 1 ]]

step "an app at home finds the robot"
answer=$(home perl -MIO::Socket::INET -e '
    my $s = IO::Socket::INET->new(Proto => "udp", PeerAddr => $ARGV[0], PeerPort => 5678) or die;
    $s->send("halvikmcs"); alarm 10; $s->recv(my $reply, 2048); print $reply' "$(robot_address)")
[[ $answer == '{"ver":"3","hostname":"Plover-0123456789ABCDEF","robotname":"robot",'*"\"ip\":\"$(robot_address)\""* ]]
