# A home without a key, whose name holds what a shell or a JSON parser would trip over.
# limit: 150 s
HOME_SSID="O'Brien \"\$(x)\" \\ & Söhne"
home_up security=open
new_robot_up
provisioning_begins
app_sends key=
provisioning_succeeds "$HOME_SSID"
expect_netinfo 5 sec=0
[[ ! $(station_status pairwise_cipher) || $(station_status pairwise_cipher) == NONE ]]
