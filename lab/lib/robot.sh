# The robot: its settings, the daemon and its clock, what can be seen of it from outside.

# kvs_set KEY VALUE, kvs_get KEY, kvs_del KEY: the robot's key-value store.
kvs_set() { printf %s "$2" >"$STORE/$1"; }
kvs_get() { cat "$STORE/$1"; }
kvs_del() { rm -f "$STORE/$1"; }

# hex TEXT: as the store keeps an SSID.
hex() { printf %s "$1" | od -An -v -tx1 | tr -d ' \n'; }

# save_network [SSID [KEY]]: the robot knows this network with DHCP, as after a provisioning. No KEY: open.
save_network() {
    kvs_set network.ssid "$(hex "${1-$HOME_SSID}")"
    if (($# == 0)); then set -- "$HOME_SSID" "$HOME_KEY"; fi
    if [[ ${2-} ]]; then kvs_set network.password "$2"; else kvs_del network.password; fi
    kvs_set network.ip_config 'sudo provision --clmode dhcp '
    kvs_set network.addr_type 1
    kvs_set network.last_prov_status 1
}

# network_conf: the supplicant's configuration for the home, where there is no daemon to write it.
network_conf() {
    printf '%s\n' ctrl_interface=/var/run/wpa_supplicant ctrl_interface_group=apps 'network={' \
        "ssid=$(hex "$HOME_SSID")" "psk=\"$HOME_KEY\"" scan_ssid=1 '}' >/etc/wpa_supplicant.conf
}

# start_daemon [ARGUMENT...]: netwarden.
start_daemon() {
    rm -f $LAB/daemon.exit $LAB/daemon.pid
    uptime_s >$LAB/started
    (
        trap - ERR
        set +e
        /usr/bin/netwarden "$@" &
        echo $! >$LAB/daemon.pid
        wait $!
        echo $? >$LAB/daemon.exit
    ) >>"$LAB_RESULTS/daemon.out" 2>&1 3>&- &
    wait_until 5 test -s $LAB/daemon.pid
}

# since_start: seconds since start_daemon.
since_start() { since "$(<$LAB/started)"; }

daemon_pid() { cat $LAB/daemon.pid; }

# stop_daemon: kills netwarden, which has no orderly end.
stop_daemon() {
    touch $LAB/stopping
    kill -9 "$(daemon_pid)"
    while [[ ! -e $LAB/daemon.exit ]]; do sleep 0.1; done
    rm $LAB/daemon.exit $LAB/daemon.pid $LAB/stopping
}

# new_robot_up [ARGUMENT OF start_peers...]: a robot without settings, with its other processes.
new_robot_up() {
    kvs_set product.robotid 0123456789ABCDEF
    start_peers "$@"
    start_daemon
    wait_state 0 60
}

# robot_at_home: a home, and a robot that has joined it.
robot_at_home() {
    home_up
    save_network
    kvs_set product.robotid 0123456789ABCDEF
    start_peers
    start_daemon
    wait_state 1 120
}

# expect_reboot SECONDS: the robot asks for its reboot, which is noted and not performed.
expect_reboot() { wait_until "$1" test -e $LAB/reboots || fail "no reboot within $1 s; the last log lines were:
$(log_since_mark | tail -8)"; }

refute_reboot() { [[ ! -e $LAB/reboots ]] || fail "rebooted, and must not: $(<$LAB/reboots)"; }

# robot_address [INTERFACE]: its IPv4 address, or nothing; the station's.
robot_address() { ip -4 -o addr show dev "${1:-wlan0}" | awk '{ sub("/.*", "", $4); print $4 }'; }

has_no_address() { [[ ! $(robot_address) ]]; }
has_leased_address() { [[ $(robot_address) == 192.168.77.1[0-5]? ]]; }

# gateway_answers: the home's, when the robot asks it with ARP.
gateway_answers() { arping -Iwlan0 -c1 $HOME_GATEWAY -w 2 | grep -q "Unicast reply from $HOME_GATEWAY \["; }

# station_status KEY: the supplicant's word on it: wpa_state, freq, pairwise_cipher ...
station_status() { wpa_cli -iwlan0 status | sed -n "s/^$1=//p"; }

# is_joined KEY VALUE: the station is joined, to that bssid or at that freq.
is_joined() { [[ $(station_status wpa_state) == COMPLETED && $(station_status "$1") == "$2" ]]; }

# psk_of SSID KEY: the 64 digits that a passphrase becomes.
psk_of() { wpa_passphrase "$1" "$2" | sed -n 's/^\tpsk=//p'; }

# daemon_count task|fd: netwarden's threads or descriptors.
daemon_count() { find "/proc/$(daemon_pid)/$1" -mindepth 1 -maxdepth 1 | wc -l; }

# daemon_status KEY: VmRSS or VmHWM in kB, Threads ... of netwarden.
daemon_status() { awk -v key="$1:" '$1 == key { print $2 }' "/proc/$(daemon_pid)/status"; }

# daemon_peak_on, daemon_peak KEY: the highest daemon_status from then on (sampled each 0.2 s).
daemon_peak_on() { background peak bash -c "while sleep 0.2; do cat /proc/$(daemon_pid)/status; done"; }
daemon_peak() { awk -v key="$1:" '$1 == key && $2 > top { top = $2 } END { print top }' "$LAB_RESULTS/peak.log"; }
