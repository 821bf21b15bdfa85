# What the robot says: its system log and the traffic of its broker.

# mark: from here on only new messages and log lines count.
mark() {
    wc -l <"$LAB_LOG" >$LAB/mark.log
    wc -l <"$LAB_MESSAGES" >$LAB/mark.messages
}

log_since_mark() { tail -n +$(($(cat $LAB/mark.log) + 1)) "$LAB_LOG"; }
messages_since_mark() { tail -n +$(($(cat $LAB/mark.messages) + 1)) "$LAB_MESSAGES"; }

has_log() { log_since_mark | grep -qE -- "$1"; }
has_message() { messages_since_mark | grep -qE -- "$(of_topic "$1" "$2")"; }
# of_topic TOPIC PATTERN: such a message as a line of $LAB_MESSAGES.
of_topic() { if [[ $2 == ^* ]]; then echo "^[^ ]+ ($1) (${2#^})"; else echo "^[^ ]+ ($1) .*($2)"; fi; }

# expect_log PATTERN SECONDS: a line of the robot's system log.
expect_log() {
    has_log "$1" || comes "$2" "$(<$LAB/mark.log)" "$LAB_LOG" "$1" || fail "no log line /$1/ within $2 s; the last were:
$(log_since_mark | tail -8)"
}

# log_is_read: what was logged before the call is in the log's file: a marker went behind it and has arrived.
log_is_read() {
    local marker=marker-$RANDOM$RANDOM end=$((SECONDS + 10))
    logger -t lab "$marker"
    until grep -qF " lab: $marker" "$LAB_LOG"; do
        ((SECONDS < end)) || fail "the log is not written any more"
        sleep 0.05
    done
}

# refute_log PATTERN: fails when such a line was logged since the mark.
refute_log() {
    log_is_read
    ! has_log "$1" || fail "logged, and must not be: $(log_since_mark | grep -E -m3 -- "$1")"
}

# expect_message TOPIC PATTERN SECONDS: a message on this topic, which is a pattern too.
expect_message() {
    has_message "$1" "$2" || comes "$3" "$(<$LAB/mark.messages)" "$LAB_MESSAGES" "$(of_topic "$1" "$2")" ||
        fail "no message /$2/ on $1 within $3 s; the last were:
$(messages_since_mark | tail -8)"
}

# refute_message TOPIC PATTERN: fails when such a message was sent since the mark.
refute_message() {
    ! has_message "$1" "$2" || fail "published on $1, and must not be: $2"
}

# wait_state N SECONDS: the robot reports Wi-Fi state N.
wait_state() { expect_message network/events "^\{\"wifistat\":\{\"wifi\":$1,\"uap\":(true|false)\}\}$" "$2"; }

# expect_netinfo SECONDS [dhcp=..] [sec=..] [addr=..] [dns2=..]: the netinfo message of a robot joined to radio 1.
expect_netinfo() {
    local seconds=$1 dhcp=true sec=4 addr='192\.168\.77\.1[0-5][0-9]' dns2=0.0.0.0; shift
    options "dhcp sec addr dns2" "$@"
    expect_message network/events "^\{\"netinfo\":\{\"dhcp\":$dhcp,\"addr\":\"$addr\",\"mask\":\"255.255.255.0\",\
\"gw\":\"$HOME_GATEWAY\",\"dns1\":\"$HOME_GATEWAY\",\"dns2\":\"$dns2\",\"bssid\":\"$(home_bssid 1)\",\"sec\":$sec\}\}$" "$seconds"
}

# expect_wlcfg SECONDS [sec=..] [more=JSON MEMBERS]: the message of the home's network that the robot knows.
expect_wlcfg() {
    local seconds=$1 sec=4 more=; shift
    options "sec more" "$@"
    expect_message network/events \
        "^\{\"wlcfg\":\{\"sec\":$sec,\"ssid\":\"$(hex "$HOME_SSID")\"${more:+,$more}\}\}$" "$seconds"
}

# expect_in_order PATTERN...: the messages since the mark hold lines that match, in this order.
expect_in_order() {
    local line=0 found pattern
    for pattern in "$@"; do
        found=$(messages_since_mark | tail -n +$((line + 1)) | grep -nE -m1 -- "$pattern" | cut -d: -f1)
        [[ $found ]] || fail "no message /$pattern/ after the ones before it in: $*
$(messages_since_mark)"
        line=$((line + found))
    done
}

# story_begins: what `story` tells begins here.
story_begins() {
    wc -l <"$LAB_LOG" >$LAB/story.log
    wc -l <"$LAB_MESSAGES" >$LAB/story.messages
}

# story: what the robot was told, said and did since story_begins, in the order of time: "TOPIC PAYLOAD" for each
# message, "% COMMAND" for each command. Left out is what only asks (arping, wpa_cli status, all_sta) and what
# answers; what differs from run to run is ID and ADDRESS.
story() {
    {
        tail -n +$(($(<$LAB/story.messages) + 1)) "$LAB_MESSAGES"
        tail -n +$(($(<$LAB/story.log) + 1)) "$LAB_LOG" |
            sed -nE -e '/(arping .*| status| all_sta)$/d' -e 's/^([0-9.]+) sudo: .* COMMAND=[^ ]*\/([^ /]+)/\1 % \2/p'
    } | sort -n | sed -E -e 's/^[^ ]+ //' -e 's,^(tarn/[^ ]*/)[0-9]+ ,\1ID ,' -e '/^(lab|tarn\/network)\//d' \
        -e 's/"192\.168\.77\.1[0-5][0-9]"/"ADDRESS"/'
}

# refute_text TEXT...: these (a key, say) must be in no log and no message since the robot's boot.
refute_text() {
    local text file
    log_is_read
    for text; do
        for file in "$LAB_LOG" "$LAB_MESSAGES" "$LAB_RESULTS/daemon.out"; do
            if [[ -e $file ]] && grep -F -- "$text" "$file"; then fail "this must be written nowhere: $text"; fi
        done
    done
}
