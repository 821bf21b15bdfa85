# The plug pulled: the store lies on a disk of its own (lab/run --store), and the machine ends in the middle of something
# without writing what it still had to. Played by lab/plug.

# store_on_disk: mounts that disk where the store is, with what an end before this left on it.
store_on_disk() { mount -t ext4 /dev/vdc "$STORE"; }

# pulls_the_plug SECONDS: from now on so long.
pulls_the_plug() { background plug bash -c 'sleep "$1"; echo b >/proc/sysrq-trigger' - "$1"; }

# plug_pulled_saving SECONDS: after the app has said that all is done, when a new robot saves its settings.
plug_pulled_saving() {
    store_on_disk
    home_up
    new_robot_up
    sync
    provisioning_begins
    app_sends
    wait_state 1 90
    expect_message local/cmd '^\{"command":"ipdone"\}$' 20
    pulls_the_plug "$1"
    app_says '{"command":"ipdone"}'
    sleep 100
    fail "the machine is still there"
}

# plug_pulled_starting SECONDS: after the start of a daemon whose robot is at home.
plug_pulled_starting() {
    store_on_disk
    home_up
    save_network
    kvs_set product.robotid 0123456789ABCDEF
    start_peers
    sync
    pulls_the_plug "$1"
    start_daemon
    sleep 100
    fail "the machine is still there"
}

# plug_back: power is there again. Whatever was left, the daemon comes up in a state that has a name and stays there; it hears
# its owner; the next provisioning brings it home.
plug_back() {
    local key state left
    store_on_disk
    left=$(cd "$STORE" && for key in network.*; do [[ ! -f $key ]] || printf '%s=%s ' "${key#network.}" "$(stat -c %s "$key")"; done)
    home_up
    start_peers
    start_daemon
    wait_state '[0-9]+' 120
    sleep 60
    alive
    state=$(grep -oE '"wifistat":\{"wifi":[0-9]+' "$LAB_MESSAGES" | tail -1 | grep -oE '[0-9]+$')
    peer_asks 30 '{"get":"channel"}' '\{.*'
    kvs_set product.robotid 0123456789ABCDEF
    provisioning_begins
    app_sends
    provisioning_succeeds
    figure "left: ${left:-nothing}" "state $state, then provisioned"
}
