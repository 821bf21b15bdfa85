# The words in which scenarios are written. Sourced by every scenario; runs as root inside the robot, which
# is the virtual machine's root network namespace. `home` and `phone` are namespaces with radios of their own.
#
# expect_... waits at most SECONDS and then fails, showing what was seen last. Messages and log lines count
# from the last `mark` on (at first: from the start). PATTERN is an extended regular expression.

HOME_SSID=${HOME_SSID-'Lab Home'}
HOME_KEY=${HOME_KEY-'correct horse 42'}
HOME_GATEWAY=192.168.77.1
STORE=/opt/halvik/persistent/opt/halvik/data/kvs
LAB=/run/lab
LAB_LOG=$LAB_RESULTS/log           # the robot's syslog, each line with its time of arrival
LAB_MESSAGES=$LAB_RESULTS/messages # the broker's traffic: time, topic, payload

# --- the story ---------------------------------------------------------------------------------------

# step TEXT: says what happens now, on the host's terminal too.
step() {
    echo "[$(uptime_s)] $*"
    echo "P $LAB_SCENARIO: $*" >&3
}

# fail TEXT: ends the scenario as failed.
fail() {
    trap - ERR
    local frame=0
    while [[ ${BASH_SOURCE[frame]-} && ${BASH_SOURCE[frame]} != "${scenario-}" ]]; do frame=$((frame + 1)); done
    echo "FAILED at line ${BASH_LINENO[frame - 1]}: $*"
    exit 1
}

# skip REASON: ends the scenario as not applicable here.
skip() {
    echo "$*" >"$LAB_RESULTS/skipped"
    exit 77
}

uptime_s() { cut -d' ' -f1 /proc/uptime; }

# mark: from here on only new messages and log lines count.
mark() {
    wc -l <"$LAB_LOG" >$LAB/mark.log
    wc -l <"$LAB_MESSAGES" >$LAB/mark.messages
}

log_since_mark() { tail -n +$(($(cat $LAB/mark.log) + 1)) "$LAB_LOG"; }
messages_since_mark() { tail -n +$(($(cat $LAB/mark.messages) + 1)) "$LAB_MESSAGES"; }

# wait_until SECONDS COMMAND...: waits until COMMAND succeeds; returns 1 when it did not in time.
wait_until() {
    local end=$((SECONDS + $1)); shift
    until "$@" >/dev/null 2>&1; do
        [[ ! -e $LAB/daemon.exit ]] || fail "netwarden ended with status $(<$LAB/daemon.exit)"
        ((SECONDS < end)) || return 1
        sleep 0.2
    done
}

# expect TEXT SECONDS COMMAND...: fails with TEXT when COMMAND does not succeed in time.
expect() {
    local text=$1 seconds=$2; shift 2
    wait_until "$seconds" "$@" || fail "$text: not within $seconds s"
}

# refute TEXT COMMAND...: fails with TEXT when COMMAND succeeds. (A bare `! COMMAND` would never fail.)
refute() {
    local text=$1; shift
    if "$@" >/dev/null 2>&1; then fail "$text"; fi
}

# background NAME COMMAND...: a helper of the world; its output goes to results/NAME.log.
background() {
    local name=$1; shift
    "$@" >>"$LAB_RESULTS/$name.log" 2>&1 3>&- &
    echo $! >"$LAB/$name.pid"
    disown
}

# end NAME [SIGNAL]: ends it and waits until it is gone.
end() {
    local pid
    pid=$(<"$LAB/$1.pid")
    rm "$LAB/$1.pid"
    kill "${2:--TERM}" "$pid"
    wait_until 10 gone "$pid" || fail "$1 does not end"
}
gone() { ! kill -0 "$1"; }

# figure NAME VALUE: a measurement: a comment of the report and a line of results/figures.
figure() {
    printf '%-44s %s\n' "$1" "$2" >>"$LAB_RESULTS/figures"
    printf 'T # %-44s %s\n' "$1" "$2" >&3
}

# --- what the robot says -----------------------------------------------------------------------------

has_log() { log_since_mark | grep -qE -- "$1"; }
has_message() { messages_since_mark | awk -v t="^$1\$" '$2 ~ t' | sed -E 's/^[^ ]+ [^ ]+ //' | grep -qE -- "$2"; }

# expect_log PATTERN SECONDS: a line of the robot's system log.
expect_log() {
    wait_until "$2" has_log "$1" || fail "no log line /$1/ within $2 s; the last were:
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
    wait_until "$3" has_message "$1" "$2" || fail "no message /$2/ on $1 within $3 s; the last were:
$(messages_since_mark | tail -8)"
}

# refute_message TOPIC PATTERN: fails when such a message was sent since the mark.
refute_message() {
    ! has_message "$1" "$2" || fail "published on $1, and must not be: $2"
}

# wait_state N SECONDS: the robot reports Wi-Fi state N.
wait_state() { expect_message network/events "^\{\"wifistat\":\{\"wifi\":$1,\"uap\":(true|false)\}\}$" "$2"; }

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

# story_begins: from here on each command that runs through sudo is logged, for `story`.
story_begins() {
    sed -i '/!syslog/d' /etc/sudoers.d/netwarden
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

# netinfo dhcp=.. sec=.. [addr=..] [dns2=..]: the pattern of the netinfo message of a robot joined to radio 1.
netinfo() {
    local dhcp sec addr='192\.168\.77\.1[0-5][0-9]' dns2=0.0.0.0
    local "$@"
    printf '^\{"netinfo":\{"dhcp":%s,"addr":"%s","mask":"255.255.255.0","gw":"192.168.77.1",' "$dhcp" "$addr"
    printf '"dns1":"192.168.77.1","dns2":"%s","bssid":"%s","sec":%s\}\}$\n' "$dns2" "$(home_bssid 1)" "$sec"
}

# refute_text TEXT: TEXT (a key, say) must be in no log and no message since the robot's boot.
refute_text() {
    local file
    log_is_read
    for file in "$LAB_LOG" "$LAB_MESSAGES" "$LAB_RESULTS/daemon.out"; do
        if [[ -e $file ]] && grep -F -- "$1" "$file"; then fail "this must be written nowhere: $1"; fi
    done
}

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

# --- the robot ---------------------------------------------------------------------------------------

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

# save_small_network [MASK]: as save_network, with the address 192.168.77.2 in a subnet of six, soon swept.
save_small_network() {
    save_network
    kvs_set network.addr_type 0
    kvs_set network.ip_config "sudo provision --clmode static --clipaddr 192.168.77.2 --clnetmask ${1:-255.255.255.248} \
--clgw $HOME_GATEWAY --cldnsns1 $HOME_GATEWAY --cldnsns2 $HOME_GATEWAY"
}

# robot_tracks: robot at home in that subnet, its sweep done, its log in full: what follows are hops.
robot_tracks() {
    save_small_network
    start_daemon
    wait_state 1 120
    netwardenctl log-level dbg
    mark
    track start
    expect_log 'discover threads done' 60
}

# start_daemon [ARGUMENT...]: netwarden, with the clock of the last fast_clock.
start_daemon() {
    rm -f $LAB/daemon.exit $LAB/daemon.pid
    uptime_s >$LAB/started
    local clock=()
    if [[ -e $LAB/clock ]]; then
        clock=(LD_PRELOAD="$(echo /usr/lib/*/faketime/libfaketimeMT.so.1)" FAKETIME_ONLY_CMDS=netwarden
            FAKETIME_TIMESTAMP_FILE="$LAB/clock" FAKETIME_NO_CACHE=1)
        echo "$EPOCHREALTIME 0 $(sed 's/.*x//' $LAB/clock)" >$LAB/clock.state
    fi
    (
        trap - ERR
        set +e
        env "${clock[@]}" /usr/bin/netwarden "$@" &
        echo $! >$LAB/daemon.pid
        wait $!
        echo $? >$LAB/daemon.exit
    ) >>"$LAB_RESULTS/daemon.out" 2>&1 3>&- &
    wait_until 5 test -s $LAB/daemon.pid
}

# since_start: seconds since start_daemon.
since_start() { awk -v started="$(cat $LAB/started)" '{ printf "%.1f\n", $1 - started }' /proc/uptime; }

daemon_pid() { cat $LAB/daemon.pid; }

# stop_daemon: kills netwarden, which has no orderly end.
stop_daemon() {
    kill -9 "$(daemon_pid)"
    while [[ ! -e $LAB/daemon.exit ]]; do sleep 0.1; done
    rm $LAB/daemon.exit $LAB/daemon.pid
}

# fast_clock N: netwarden's clocks and sleeps run N times as fast, those of the programs it runs do not. Once
# before start_daemon; then at any time: the daemon's time goes on from where it is.
fast_clock() {
    local now=$EPOCHREALTIME start offset rate
    [[ ! -e $LAB/daemon.pid || -e $LAB/clock.state ]] || fail "fast_clock must be called once before start_daemon"
    if [[ -e $LAB/clock.state ]]; then
        read -r start offset rate <$LAB/clock.state
        offset=$(awk "BEGIN { printf \"%.3f\", $offset + ($now - $start) * ($rate - $1) }")
        echo "$start $offset $1" >$LAB/clock.state
    fi
    printf '%+.3f x%s\n' "${offset:-0}" "$1" >$LAB/clock.new
    mv $LAB/clock.new $LAB/clock
}

# start_peers ARGUMENT...: the robot's other processes (see lab/peers --help).
start_peers() {
    background peers /lab/peers "$@"
    expect "the peers" 5 grep -q connected "$LAB_RESULTS/peers.log"
}

stop_peers() { end peers; }

# needs_fast_clocks: libfaketime hastens sleeps everywhere, but not the 64-bit clocks of 32-bit programs.
needs_fast_clocks() { [[ $(getconf LONG_BIT) == 64 ]] || skip "no fast clocks on a 32-bit processor"; }

# new_robot_up: a robot without settings, with its other processes.
new_robot_up() {
    kvs_set product.robotid 0123456789ABCDEF
    start_peers
    start_daemon
    wait_state 0 60
}

# robot_at_home [hastened]: a home, and a robot that has joined it; hastened, it can take a fast_clock.
robot_at_home() {
    home_up
    save_network
    kvs_set product.robotid 0123456789ABCDEF
    start_peers
    [[ $# == 0 ]] || fast_clock 1
    start_daemon
    wait_state 1 120
}

# peers_next_cleaning N: from now on the next cleaning is N away.
peers_next_cleaning() { tell_peers "{\"process\": 9, \"nextCleaning\": $1}"; }

# peer_mode PROCESS normal|silent|late|wrong: how it answers from now on.
peer_mode() { tell_peers "{\"process\": $1, \"mode\": \"$2\"}"; }

tell_peers() {
    publish lab/peers "$1"
    expect "the peers know $1" 5 grep -qF "control $1" "$LAB_RESULTS/peers.log"
}

# expect_reboot SECONDS: the robot asks for its reboot, which is noted and not performed.
expect_reboot() { wait_until "$1" test -e $LAB/reboots || fail "no reboot within $1 s; the last log lines were:
$(log_since_mark | tail -8)"; }

refute_reboot() { [[ ! -e $LAB/reboots ]] || fail "rebooted, and must not: $(<$LAB/reboots)"; }

# robot_address: the station's IPv4 address, or nothing.
robot_address() { ip -4 -o addr show dev "${1:-wlan0}" | awk '{ sub("/.*", "", $4); print $4 }'; }

has_no_address() { [[ ! $(robot_address) ]]; }

# station_status KEY: the supplicant's word on it: wpa_state, freq, pairwise_cipher ...
station_status() { wpa_cli -iwlan0 status | sed -n "s/^$1=//p"; }

# psk_of SSID KEY: the 64 digits that a passphrase becomes.
psk_of() { wpa_passphrase "$1" "$2" | sed -n 's/^\tpsk=//p'; }

# robot_mdns_up: the robot's own mDNS, which avahi-browse asks; by IPv6 as well.
robot_mdns_up() {
    mkdir -p /run/dbus
    background dbus dbus-daemon --system --nofork --nopidfile
    expect "the system bus" 10 test -S /run/dbus/system_bus_socket
    ip addr add fd77::77/64 dev wlan0 nodad
    background mdns avahi-daemon --no-drop-root --no-chroot --no-rlimits
    expect "the robot's mDNS" 20 grep -q 'Server startup complete' "$LAB_RESULTS/mdns.log"
}

# track start|stop|pause: switches tracking of the home's devices.
track() { publish brisk/network/events "{\"event\":\"$1WifiDeviceTracking\"}"; }

# census: the newest report of the home's devices since the mark.
census() { messages_since_mark | sed -n 's/^[^ ]* robot\/debug \({"wifiDevices":.*\)/\1/p' | tail -1; }

# device I [JSON MEMBERS]: how the census shows it.
device() { echo "{\"mac_address\":\"$(device_mac "$1")\"${2:+,$2}}"; }

# expect_device SECONDS I [JSON MEMBERS]: the newest census lists device I with exactly these.
expect_device() {
    local wanted
    wanted=$(device "$2" "${3-}")
    wait_until "$1" lists "$wanted" || fail "not listed: $wanted in
$(census)"
}
lists() { census | grep -qF -- "$1"; }

# daemon_status KEY: VmRSS or VmHWM in kB, Threads ... of netwarden.
daemon_status() { awk -v key="$1:" '$1 == key { print $2 }' "/proc/$(daemon_pid)/status"; }

# daemon_peak_on, daemon_peak KEY: the highest daemon_status from then on (sampled each 0.2 s).
daemon_peak_on() { background peak bash -c "while sleep 0.2; do cat /proc/$(daemon_pid)/status; done"; }
daemon_peak() { awk -v key="$1:" '$1 == key && $2 > top { top = $2 } END { print top }' "$LAB_RESULTS/peak.log"; }

# broker_up: the robot's broker starts; from then on its traffic is noted.
broker_up() {
    background broker mosquitto -c /etc/mosquitto/mosquitto.conf
    wait_until 5 mosquitto_pub -t lab/broker -m up || fail "the broker does not start"
    mosquitto_sub -q 1 -t '#' -F '%U %t %p' >>"$LAB_MESSAGES" 2>/dev/null 3>&- &
    echo $! >$LAB/recorder.pid
    disown
    wait_until 5 recorder_is_on || fail "the broker's traffic is not recorded"
}

# Asked anew for each broker: a line from the one before proves nothing.
recorder_is_on() {
    local lines
    lines=$(wc -l <"$LAB_MESSAGES")
    mosquitto_pub -q 1 -t lab/recorder -m on
    sleep 0.1
    (($(wc -l <"$LAB_MESSAGES") > lines))
}

# broker_down: the robot's broker goes away.
broker_down() {
    end recorder
    end broker
}

# --- the home ----------------------------------------------------------------------------------------

# home COMMAND..., phone COMMAND...: runs it in the home's or the phone's network.
home() { "${in_home[@]}" "$@"; }
phone() { "${in_phone[@]}" "$@"; }
in_home=(nsenter --net=/run/netns/home)
in_phone=(nsenter --net=/run/netns/phone)

# home_ap_up [ssid=..] [key=..] [security=wpa2|wpa|open|wep] [channel=N] [radio=1|2|3] [hidden=1] [rejects=1]: an
# access point; a hidden one does not beacon its name, one that rejects refuses every association.
home_ap_up() {
    local ssid=$HOME_SSID key=$HOME_KEY security=wpa2 channel=6 radio=1 hidden=0 rejects=0 mode=g
    (($# == 0)) || local "$@"
    local interface=wlan$((radio + 1)) conf=$LAB/ap$radio.conf
    ((channel <= 14)) || mode=a
    {
        printf '%s\n' interface=$interface driver=nl80211 bridge=br0 ctrl_interface=$LAB/hostapd \
            logger_syslog=0 ssid2="$(hex "$ssid")" hw_mode=$mode channel=$channel ignore_broadcast_ssid=$hidden
        # World-wide rules allow no access point at 5 GHz.
        ((channel <= 14)) || echo country_code=US
        # A station sleeps through more beacons than one: status 51, listen interval too large.
        if ((rejects)); then echo max_listen_interval=1; fi
        case $security in
        wpa2) printf '%s\n' wpa=2 wpa_key_mgmt=WPA-PSK rsn_pairwise=CCMP wpa_passphrase="$key" ;;
        wpa) printf '%s\n' wpa=1 wpa_key_mgmt=WPA-PSK wpa_pairwise=TKIP wpa_passphrase="$key" ;;
        wep) printf '%s\n' auth_algs=3 wep_default_key=0 wep_key0="$(hex "$key")" ;;
        open) ;;
        *) fail "home_ap_up: no security $security" ;;
        esac
    } >"$conf"
    run_ap "$radio"
}

run_ap() {
    background "ap$1" "${in_home[@]}" hostapd -t "$LAB/ap$1.conf"
    expect "access point $1" 20 grep -q AP-ENABLED "$LAB_RESULTS/ap$1.log"
}

# home_ap_restart [RADIO]: it says farewell to its stations and is there again a moment later.
home_ap_restart() {
    end "ap${1:-1}"
    sed -i s/AP-ENABLED/AP-WAS-ENABLED/ "$LAB_RESULTS/ap${1:-1}.log"
    run_ap "${1:-1}"
}

# home_ap_down [RADIO]: the access point loses its power: no farewell to the stations.
home_ap_down() {
    local radio=${1:-1}
    end "ap$radio" -KILL
    home ip link set wlan$((radio + 1)) down
    sed -i s/AP-ENABLED/AP-WAS-ENABLED/ "$LAB_RESULTS/ap$radio.log"
}

# home_bssid [RADIO]: the access point's address, in lower case.
home_bssid() { home ip -o link show wlan$((${1:-1} + 1)) | sed 's/.*link.ether \([^ ]*\).*/\1/'; }

# shellcheck disable=SC2119,SC2120 # the options are for scenarios
# home_dhcp_up [DNSMASQ OPTION...]: addresses 192.168.77.100 to .150 for an hour, gateway and name server 192.168.77.1.
home_dhcp_up() {
    background dhcp "${in_home[@]}" dnsmasq --keep-in-foreground --log-facility=- --conf-file=/dev/null \
        --user=root --pid-file --dhcp-leasefile=$LAB/leases --interface=br0 --bind-interfaces --no-ping \
        --no-resolv --no-hosts --dhcp-authoritative --address=/gateway.home/$HOME_GATEWAY \
        --dhcp-range=192.168.77.100,192.168.77.150,255.255.255.0,1h "$@"
    expect "the home's DHCP server" 10 grep -q 'DHCP, sockets bound' "$LAB_RESULTS/dhcp.log"
}

home_dhcp_down() {
    end dhcp
    sed -i 's/DHCP, sockets/DHCP, had sockets/' "$LAB_RESULTS/dhcp.log"
}

# home_arp_drop on|off: the gateway stops answering ARP.
home_arp_drop() {
    case $1 in
    on) home sysctl -qw net.ipv4.conf.br0.arp_ignore=8 ;;
    off) home sysctl -qw net.ipv4.conf.br0.arp_ignore=0 ;;
    esac
}

# home_up [ARGUMENT OF home_ap_up...]: a whole home: access point, DHCP, name server, gateway.
home_up() {
    home_ap_up "$@"
    home_dhcp_up
}

# home_ap_power RADIO DBM: how loud it is; the robot's radio hears -30 dBm from one that sends with 20.
home_ap_power() { home iw dev wlan$(($1 + 1)) set txpower fixed $(($2 * 100)); }

# home_devices N: device1 to deviceN, namespaces behind the home's bridge that answer ARP and IPv6.
home_devices() {
    local i
    for ((i = 1; i <= $1; i++)); do
        ip netns add device$i
        home ip link del device$i 2>/dev/null || true   # of a robot before
        home ip link add device$i type veth peer name eth0 address "$(device_mac $i)" netns device$i
        home ip link set device$i master br0 up
        ip -n device$i -batch - <<BATCH
addr add $(device_address $i)/24 dev eth0
addr add fd77::$i/64 dev eth0 nodad
link set lo up
link set eth0 up
BATCH
    done
}

# device_address I, device_mac I: all over the subnet, outside of what DHCP gives away.
device_address() { echo "192.168.77.$((10 + $1 / 2 * 8 + $1 % 2 * 150))"; }
device_mac() { printf '02:77:00:00:00:%02d\n' "$1"; }

# home_announce I HOST-NAME NAME TYPE [TXT...]: device I announces a service by a real avahi-daemon of its own.
home_announce() {
    local folder=$LAB/device$1 log=$LAB_RESULTS/avahi$1.log device=$1 host=$2 name=$3 type=$4 text
    shift 4
    mkdir -p "$folder" /run/avahi-daemon
    {
        echo "<service-group><name>$(xml "$name")</name><service><type>$type</type><port>8009</port>"
        for text; do echo "<txt-record>$(xml "$text")</txt-record>"; done
        echo "</service></service-group>"
    } >"$folder/$type.new"
    mv "$folder/$type.new" "$folder/$type.service"
    [[ ! -e $LAB/avahi$device.pid ]] || return 0   # it sees the new file itself
    printf '%s\n' '[server]' host-name="$host" enable-dbus=no '[publish]' publish-hinfo=no \
        publish-workstation=no >"$folder/conf"
    background "avahi$device" nsenter --net=/run/netns/device$device unshare -m sh -c "
        mount --bind $folder /etc/avahi/services && mount -t tmpfs none /run/avahi-daemon &&
        exec avahi-daemon --file=$folder/conf --no-drop-root --no-chroot --no-rlimits --no-proc-title"
    expect "device $device announces its service" 20 grep -q 'successfully established' "$log"
}
xml() { printf %s "$1" | sed 's/&/\&amp;/g; s/</\&lt;/g'; }

# phone_join [ssid=..] [key=..]: the owner's phone joins a network (no key: open) and gets an address there.
phone_join() {
    local ssid=$HOME_SSID key=
    (($# == 0)) || local "$@"
    {
        echo "ctrl_interface=$LAB/phone"
        echo "network={"
        echo "ssid=$(hex "$ssid")"
        echo "scan_ssid=1"
        if [[ $key ]]; then echo "psk=\"$key\""; else echo "key_mgmt=NONE"; fi
        echo "}"
    } >$LAB/phone.conf
    background phone "${in_phone[@]}" wpa_supplicant -Dnl80211 -iwlan5 -c$LAB/phone.conf
    expect "the phone joins $ssid" 40 phone_is_associated
    phone udhcpc -f -n -q -t 10 -T 2 -i wlan5 -s /lab/guest/phone-lease >>"$LAB_RESULTS/phone.log" 2>&1 3>&- ||
        fail "the phone gets no address from $ssid"
}

phone_is_associated() { phone wpa_cli -p $LAB/phone -i wlan5 status | grep -q wpa_state=COMPLETED; }

# phone_leave: the phone leaves the network.
phone_leave() {
    end phone
    phone ip addr flush dev wlan5
}

# --- the owner's app ---------------------------------------------------------------------------------
# What it says reaches the daemon through the robot's other processes, on the broker.

# provisioning_begins: the app asks for it, the soft AP comes up, the phone joins.
provisioning_begins() {
    publish brisk/network/events '{"event":"tidelinkConnected"}'
    publish brisk/network/events '{"event":"provisioning"}'
    expect_message robot/debug '^\{"command":"provstart"\}$' 10
    expect_log 'SoftAP is up' 60
    phone_join ssid="Plover-$(kvs_get product.robotid | cut -c1-4)"
    expect_message robot/debug '^\{"command":"softapconnect"\}$' 15
    phone_leave
}

# app_sends [ssid=..] [key=..] [more=JSON MEMBERS]: the home's settings, and leave to use them.
app_sends() {
    local ssid=$HOME_SSID key=$HOME_KEY more=
    (($# == 0)) || local "$@"
    mark
    publish brisk/network/events \
        "{\"wlcfg\":{\"ssid\":\"$(hex "$ssid")\",\"pass\":\"$(hex "$key")\"${more:+,$more}},\"wactivate\":true}"
}

# provisioning_fails STATE SECONDS: the robot tells the app STATE, keeps it, and waits for new settings.
provisioning_fails() {
    wait_state "$1" "$2"
    expect_message tarn/btmanager/req/network/.* "\{\"wifistat\":\{\"wifi\":$1,\"uap\":(true|false)\}\}" 5
    [[ $(kvs_get network.last_prov_status) == "$1" ]]
    refute_message network/events '"wifi":1,'
    expect "the address goes" 15 has_no_address
}

# provisioning_succeeds [SSID [SECRET AS SAVED]]: the robot connects, the app says ipdone, the settings are saved.
provisioning_succeeds() {
    wait_state 1 90
    expect_message local/cmd '^\{"command":"ipdone"\}$' 20
    publish brisk/network/events '{"command":"ipdone"}'
    expect_message tarn/2/event/network/.* '^\{"event":"resetCloudConnection"\}$' 15
    expect_log 'rx event PROVISIONING_COMPLETE in state WAITING_FOR_IP_DONE' 1
    expect_message network/events '"wlcfg"' 10
    [[ $(kvs_get network.last_prov_status) == 1 ]]
    [[ $(kvs_get network.ssid) == "$(hex "${1-$HOME_SSID}")" ]]
    if (($# == 0)); then set -- "$HOME_SSID" "$(psk_of "$HOME_SSID" "$HOME_KEY")"; fi
    if [[ ${2-} ]]; then [[ $(kvs_get network.password) == "$2" ]]; else [[ ! -e $STORE/network.password ]]; fi
}

# --- before and after a scenario (lab/guest/robot) ---------------------------------------------------

robot_boot() {
    mkdir -p $LAB
    : >"$LAB_LOG"
    : >"$LAB_MESSAGES"
    mark
    hostname robot
    perl /lab/guest/syslogd "$LAB_LOG" 3>&- &
    wait_until 5 test -S /dev/log
    reset_radios
    ip link set lo up
    ifup -a
    broker_up
}

# The namespaces outlive the robots, so what is in them is made anew.
reset_radios() {
    local interface
    ! ip link show mon0 >/dev/null 2>&1 || iw dev mon0 del
    for interface in wlan0 wlan1; do ip link set $interface down; ip addr flush dev $interface; done
    for interface in wlan2 wlan3 wlan4; do home ip link set $interface down; done
    forget_access_points
    phone ip link set wlan5 down
    phone ip addr flush dev wlan5
    ! home ip link show br0 >/dev/null 2>&1 || home ip link del br0
    home ip link set lo up
    phone ip link set lo up
    home ip link add br0 address 02:77:00:00:00:fe type bridge
    home ip addr add $HOME_GATEWAY/24 dev br0
    home ip link set br0 up
    home_arp_drop off
}

# The kernel lists access points for half a minute after they went, also those of the robot before. A scan begun anew, of
# one frequency, forgets them.
forget_access_points() {
    iw dev wlan0 scan dump | grep -q ^BSS || return 0
    ip link set wlan0 up
    iw dev wlan0 scan freq 2412 flush >/dev/null
    ip link set wlan0 down
}

robot_leave() {
    sync
    dmesg >"$LAB_RESULTS/kernel.log" 2>/dev/null
    cp /etc/wpa_supplicant.conf "$LAB_RESULTS/" 2>/dev/null
    true
}
