# An app finds the robot by a UDP probe: at home, by the robot's address and by broadcast, after a change of address,
# in a flood of probes; while it is provisioned, through the soft AP. What is no probe gets no answer.
# limit: 400 s
home_up
save_network
kvs_set product.robotid 0123456789ABCDEF
kvs_set product.sku R98-0042
start_peers

# probe home|phone|robot ADDRESS [TEXT]: sends TEXT (a probe) and prints what comes back within 3 s.
probe() {
    "$1" perl -MSocket -e 'socket S, PF_INET, SOCK_DGRAM, 0; setsockopt S, SOL_SOCKET, SO_BROADCAST, 1;
        send S, $ARGV[1], 0, pack_sockaddr_in(5678, inet_aton($ARGV[0])) or die $!;
        alarm 3; recv S, $answer, 65536, 0; print $answer' "$2" "${3-halvikmcs}"
}
robot() { "$@"; }
# description CAPABILITIES [ADDRESS]: what the robot says of itself.
description() {
    printf '{"ver":"3","hostname":"Plover-0123456789ABCDEF","robotname":"robot","robotid":"0123456789ABCDEF",'
    printf '"ip":"%s","mac":"02:00:00:00:00:00","sw":"%s",' "${2-$(robot_address)}" "$(version | sed -n 's/^Product Version: //p')"
    printf '"sku":"R98-004","nc":%s,"proto":"mqtt","cap":%s}' "${nc-0}" "$1"
}
readonly CAPABILITIES='{"ota":2,"maps":3,"pose":1}'

step "corehub does not say what the robot can do, or not what was asked, or late"
while read -r mode capabilities log; do
    mark
    peer_mode 12 "$mode"
    start_daemon
    expect_log "$log" 60
    wait_until 20 eval '[[ $(ss -Hlun sport = 5678) ]]'
    expect "cap $capabilities" 10 eval '[[ $(probe robot 127.0.0.1) == *"\"cap\":$capabilities}" ]]'
    stop_daemon
done <<'MODES'
silent {} \[ERROR\].*falied to get cap from corehub
wrong {} \[ERROR\].*json_object_get failed
late {"ota":2,"maps":3,"pose":1} \[ERROR\].*falied to get cap from corehub
MODES
mark
peer_mode 12 normal
start_daemon
wait_state 1 90

step "at home, by its address and by broadcast; to another process"
[[ $(probe home "$(robot_address)") == "$(description "$CAPABILITIES")" ]]
[[ $(probe home 192.168.77.255) == "$(description "$CAPABILITIES")" ]]
expect_log '\[INFO\].*disc_advertised is: \{"ver":"3",.*"pose":1\}\}$' 5
peer_asks 5 '{"get":"discovery"}' "$(description "$CAPABILITIES" | sed 's/[{}]/\\&/g')"
[[ $(kvs_get robot.name) == robot ]]
publish network/debug '{"cap":{"ota":[1,{}]}}'
publish network/debug '{"nc":-7}'
publish network/debug '{"nc":"x"}'
expect_log '\[ERROR\].*expected integer as value' 5
[[ $(probe home "$(robot_address)") == "$(nc=-7 description '{"ota":[1,{}]}')" ]]

step "no probes, no answers"
for text in halvikmc halvikmcS halvikmcs! "$(printf 'x%.0s' {1..1400})"; do
    mark
    refute "an answer to '$text'" grep . <<<"$(probe home "$(robot_address)" "$text" || true)"
    expect_log "\[ERROR\].*bad discovery packet from 192.168.77.1 - len=${#text} rxbuf=${text:0:9}\$" 5
done

step "1000 probes at once from 50 sockets: the robot answers others, and the flood's senders afterwards"
mark
home perl -MSocket -e 'my $to = pack_sockaddr_in(5678, inet_aton($ARGV[0]));
    my @s = map { socket(my $s, PF_INET, SOCK_DGRAM, 0) or die $!; $s } 1 .. 50;
    for (1 .. 20) { send $_, "halvikmcs", 0, $to for @s }
    alarm 100; my $answers = 0;
    for my $s (@s) {
        my $in = ""; vec($in, fileno $s, 1) = 1;
        send $s, "halvikmcs", 0, $to until select my $ready = $in, undef, undef, 2;
        recv $s, my $answer, 2048, 0; $answer =~ /^\{"ver":"3".*\}$/ or die $answer; $answers++;
    }
    print "$answers\n"' "$(robot_address)" >$LAB/answers &
flood=$!
peer_asks 5 '{"get":"channel"}' '\{"channel": 6\}'
wait $flood
[[ $(<$LAB/answers) == 50 ]]
refute_message network/events wifistat

step "the home gives the robot another address"
mark
end dhcp
home_dhcp_up --dhcp-host=02:00:00:00:00:00,192.168.77.149
publish tarn/network/event/5/1 '{"event":"restartNetwork"}'
expect_log '\[INFO\].*Network manager received restart network request, restarting...' 5
expect_netinfo 90 addr=192.168.77.149
[[ $(probe home 192.168.77.149) == "$(nc=-7 description '{"ota":[1,{}]}' 192.168.77.149)" ]]

step "in the soft AP, with what the last provisioning came to"
mark
kvs_set network.last_prov_status 3
app_wants_provisioning
expect_log 'SoftAP is up' 60
phone_join ssid=Plover-0123
answer=$(probe phone 192.168.10.1)
step "$answer"
[[ $answer == '{"ver":"3",'*'"lps":3}' ]]
