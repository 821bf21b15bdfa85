# How late the daemon's supervision gets when everybody talks to it at once: lab/run bench/load.sh
# limit: 1500 s
home_up
save_network
kvs_set product.robotid 0123456789ABCDEF
start_peers --next-cleaning 100000
background manager perl /lab/guest/manager 600 /usr/bin/netwarden
expect_from manager 'STATUS=Wi-Fi CONNECTED' 120
expect_log 'ready to ping using' 40
kill "$(pgrep recorder || cat $LAB/recorder.pid)"   # what it and the system log write would fill the robot's memory
longest() { sed -n 's/^silent for up to //p' "$LAB_RESULTS/manager.log" | tail -1; }

step "nothing to do, for a minute"
kill -USR1 "$(<$LAB/manager.pid)"
sleep 60
figure "pause between two passes, idle: longest" "$(longest)"

# talker NAME TOPIC TEXT: five hundred of it a second, in portions of five each 10 ms.
talker() {
    background "$1" bash -c 'perl -MTime::HiRes=sleep -e '\''$| = 1; for (;;) { print "$ARGV[0]\n" x 5; sleep 0.01 }'\'' "$2" |
        mosquitto_pub -l -t "$1"' - "$2" "$3"
}
step "1,000 messages a second and 20 sockets that probe, for ten minutes"
: >"$LAB_LOG"
talker events brisk/network/events '{"event":"somethingElse"}'
talker requests tarn/network/req/30/1 '{"get":"channel"}'
background answers sh -c "mosquitto_sub -t tarn/30/resp/network/1 | grep -c ."
background apps "${in_home[@]}" perl -MSocket -MTime::HiRes=sleep -e '$| = 1;
    my ($asked, $answered) = (0, 0);
    my @sockets = map { socket(my $s, AF_INET, SOCK_DGRAM, 0); $s } 1 .. 20;
    for (;;) {
        for my $s (@sockets) { send($s, "halvikmcs", 0, sockaddr_in(5678, inet_aton($ARGV[0]))); $asked++ }
        sleep 0.1;
        for my $s (@sockets) { while (defined recv($s, my $text, 4096, MSG_DONTWAIT)) { $answered++ } }
        print "$answered of $asked\n" if $asked % 200 == 0;
    }' "$(robot_address)"
kill -USR1 "$(<$LAB/manager.pid)"
for ((i = 0; i < 60; i++)); do sleep 10; : >"$LAB_LOG"; done
figure "pause between two passes, under load: longest" "$(longest)"
figure "probes answered" "$(tail -1 "$LAB_RESULTS/apps.log")"
pkill mosquitto_sub || true
wait_until 5 test -s "$LAB_RESULTS/answers.log"
figure "requests answered in 600 s" "$(cat "$LAB_RESULTS/answers.log")"
awk -v longest="$(longest)" 'BEGIN { exit !(longest + 0 < 3) }' || fail "a pass was more than 2 s late"
is_joined wpa_state COMPLETED
