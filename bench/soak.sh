# Days of a robot at home, one row of figures an hour (see bench/soak, which says how many days).
# radios: 3
DAYS=${DAYS:-7}

HOME_LEASE=24h   # renewed after twelve hours
home_up beacon=1000
save_network
kvs_set product.robotid 0123456789ABCDEF
start_peers --next-cleaning 100000
start_daemon
wait_state 1 120
expect_log 'ready to ping using' 40

# hour N: a row: hour, the daemon's number, private KiB, threads, descriptors, children, files in /tmp, its processor ticks and its
# programs', its wake-ups, log lines, messages, all from its beginning but for the log and the messages.
hour() {
    local pid; pid=$(daemon_pid)
    echo "$1 $pid $(daemon_status RssAnon) $(daemon_count task) $(daemon_count fd) $(pgrep -c -P "$pid") \
$(find /tmp -mindepth 1 ! -name 'syslog-*' | wc -l) $(awk '{ print $14 + $15, $16 + $17 }' "/proc/$pid/stat") \
$(cat /proc/"$pid"/task/*/status | awk '/^voluntary/ { sum += $2 } END { print sum }') \
$(wc -l <"$LAB_LOG") $(wc -l <"$LAB_MESSAGES") $(stat -c %s "$LAB_MESSAGES")" >>"$LAB_RESULTS/hours"
}
# An app looks for the robot once a minute, all day.
background app "${in_home[@]}" perl -e 'use Socket; $| = 1;
    for (my $asked = 1;; $asked++) {
        socket(my $s, AF_INET, SOCK_DGRAM, 0); setsockopt($s, SOL_SOCKET, SO_BROADCAST, 1);
        send($s, "halvikmcs", 0, sockaddr_in(5678, inet_aton("192.168.77.255")));
        vec(my $ready = "", fileno($s), 1) = 1;
        $answers += select($ready, undef, undef, 5) > 0;
        print "$answers of $asked\n" if $asked % 60 == 0;
        sleep 60;
    }'

began=$(uptime_s)
# at HOUR MINUTE: sleeps until then.
at() { sleep "$(awk -v at="$(($1 * 3600 + $2 * 60))" -v now="$(since "$began")" 'BEGIN { print (at > now ? at - now : 0) }')"; }
for ((h = 0; h < 24 * DAYS; h++)); do
    at $h 0
    hour $h
    case $((h % 24)) in
    3) mark; home_ap_restart beacon=1000; wait_state 1 120 ;;
    12) track start; at $((h + 1)) 0; track stop ;;
    20) ((h % 168 != 164)) || { stop_daemon; mark; start_daemon; wait_state 1 120; } ;;   # a new firmware, once a week
    0) step "day $((h / 24 + 1)) of $DAYS" ;;
    esac
done
at $h 0
hour $h
[[ ! -e $LAB/reboots ]] || fail "a robot at home has rebooted"
refute_text "$HOME_KEY"
figure "probes answered" "$(tail -1 "$LAB_RESULTS/app.log")"
