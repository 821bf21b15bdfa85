# The robot's other processes on its broker (see lab/peers --help).

# publish TOPIC PAYLOAD: as another process of the robot.
publish() { mosquitto_pub -q 1 -t "$1" -m "$2"; }

# peer_asks PROCESS TEXT ANSWER: another process's request; ANSWER (a pattern) must come at once.
peer_asks() {
    local id=$RANDOM$RANDOM
    publish "tarn/network/req/$1/$id" "$2"
    expect_message "tarn/$1/resp/network/$id" "^$3\$" 5
}

# peer_tells PROCESS TEXT: another process's event; its acknowledgement must come at once.
peer_tells() {
    local id=$RANDOM$RANDOM
    publish "tarn/network/event/$1/$id" "$2"
    expect_message "tarn/$1/ack/network/$id" '^$' 5
}

# start_peers [ARGUMENT...]: with these arguments.
start_peers() {
    background peers /lab/peers "$@"
    expect_from peers connected 5
}

# peers_next_cleaning N: from now on the next cleaning is N away.
peers_next_cleaning() { tell_peers "{\"process\": 9, \"nextCleaning\": $1}"; }

# peer_mode PROCESS normal|silent|late|wrong: how it answers from now on.
peer_mode() { tell_peers "{\"process\": $1, \"mode\": \"$2\"}"; }

tell_peers() {
    local lines
    lines=$(wc -l <"$LAB_RESULTS/peers.log")
    publish lab/peers "$1"
    expect "the peers know $1" 5 peers_were_told "$1" "$lines"
}
peers_were_told() { tail -n +$(($2 + 1)) "$LAB_RESULTS/peers.log" | grep -qF "control $1"; }
