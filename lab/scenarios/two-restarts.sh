# Several processes want the network restarted at the same time. The restarts run one after the other, each of
# them whole; whoever asks on the broker is answered meanwhile; and a provisioning that begins in one waits its turn.
# limit: 300 s
robot_at_home
expect_log 'ready to ping using' 40   # the watchdog itself has nothing to restart for a while
story_begins

whole_restart='ifdown wlan0;ifdown wlan0;ifup wlan0;wpa_cli -iwlan0 reconfigure;'
station_commands() { story | sed -n 's/^% \(ifup\|ifdown\|wpa_cli\|provision --cl\)/\1/p' | grep wlan0 | tr '\n' ';'; }
has_run() { [[ $(station_commands) == "$1" ]]; }
# seconds COMMAND N: when that command ran for the Nth time in this story, in the lab's time.
ran_at() {
    tail -n +$(($(<$LAB/story.log) + 1)) "$LAB_LOG" | grep -E "sudo: .* COMMAND=[^ ]*/$1\$" | sed -n "$2s/ .*//p"
}
took() { awk "BEGIN { printf \"%.1f\", $2 - $1 }"; }
# answer_time ID: how long the broker's traffic shows that request or event without its answer.
answer_time() {
    awk -v id="/$1\$" '$2 ~ id { if (asked == "") asked = $1; else { printf "%.2f", $1 - asked; exit } }' "$LAB_MESSAGES"
}
is_answered() { [[ $(answer_time "$1") ]]; }

step "two events, 0.6 seconds apart"
mark
publish tarn/network/event/5/9001 '{"event":"restartNetwork"}'
sleep 0.6
publish tarn/network/event/5/9002 '{"event":"restartNetwork"}'
for id in {9101..9108}; do
    publish tarn/network/req/5/$id '{"get":"channel"}'
    sleep 0.5
done
for id in 9001 9002 {9101..9108}; do
    expect "an answer to $id" 10 is_answered $id
    awk "BEGIN { exit !($(answer_time $id) < 1) }" || fail "answered only after $(answer_time $id) s: $id"
done
expect "two whole restarts" 60 has_run "$whole_restart$whole_restart"
figure 'first restart, s' "$(took "$(ran_at 'ifdown wlan0' 1)" "$(ran_at 'wpa_cli -iwlan0 reconfigure' 1)")"
figure 'second restart, s' "$(took "$(ran_at 'ifdown wlan0' 3)" "$(ran_at 'wpa_cli -iwlan0 reconfigure' 2)")"
mark
wait_state 1 90

step "a provisioning begins in a restart"
story_begins
mark
publish tarn/network/event/5/9003 '{"event":"restartNetwork"}'
app_wants_provisioning
expect_log 'SoftAP is up' 60
has_run "${whole_restart}ifdown wlan0;" || fail "not one after the other: $(story)"
refute_log 'Error publishing|tarn_transfer failed'
sleep 2
mark
app_says '{"event":"btnpress"}'
wait_state 1 120
