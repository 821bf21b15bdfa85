# Storms: faults drawn from a seed befall a robot at home, overlapping; then the world heals, and the robot must be home
# again with nothing lost. Played by lab/scenarios/storm.sh and lab/storm.

# What a fault befalls (one at a time) | the fault, a function below, with "on" and "off" | its shortest and longest, in s.
STORM_FAULTS='
ap         ap_off               5 120
ap         ap_restarted         1   1
ap         ap_on_other_channel 20 120
ap         ap_replaced         20 120
ap         ap_key_changed      20  90
gateway    gateway_silent      10 150
home       dhcp_away           20 180
home       gateway_moved       60 180
broker     broker_killed        2  40
broker     broker_frozen        2  30
broker     broker_restarted     1   1
supplicant supplicant_killed    1   1
supplicant supplicant_ended     1   1
supplicant supplicant_stopped   5  60
lease      udhcpc_killed        1   1
script     script_fails        10 120
script     script_babbles      10 120
script     script_slow         10 120
script     script_hangs        30 240
store      store_full          10 120
store      store_read_only     10 120
store      store_damaged       10  60
radio      radio_taken          5  90
app        restart_wanted       1   1
app        provisioning        10  90
app        training            10  90
census     tracking            20 120
log        log_level           10  60
probes     probe_flood         10  60
mission    mission             20 200
daemon     daemon_killed        5   5
clock      clock_wrong         10  90
'
# From the last fault's end to state 1. A script that hangs is let go at its fault's end; from then on at most: three cycles
# of 20 s until the watchdog acts, a restart, a scan, a lease (80 s together), and once more, for what broke the first.
STORM_HEALS_S=300

# storm SEED MINUTES [NUMBER...]: the faults of that seed, or of these only those with a NUMBER.
storm() {
    local seed=$1 minutes=$2; shift 2
    robot_in_storm
    storm_draw "$seed" "$minutes" "$@"
    step "storm $seed of $minutes min: $(wc -l <$LAB/faults) faults"
    storm_plays
    step "the world has healed"
    storm_heals
}

# The canaries: what must be read nowhere afterwards.
robot_in_storm() {
    home_up
    save_network
    kvs_set product.robotid 0123456789ABCDEF
    kvs_set robot.password 'canary of the robot'
    kvs_set network.watchdog_interval_min 3   # cycles of 20 s without an address
    start_peers --next-cleaning 100000
    start_daemon
    wait_state 1 120
    expect_log 'ready to ping using' 40
    saved_network >$LAB/saved.before
    robot_warms_up
    things_in_tmp >$LAB/tmp.before
    daemon_descriptors >$LAB/descriptors.before
    threads=$(daemon_count task) memory=$(daemon_status RssAnon) born=$(daemon_pid)
    background asker storm_asks
    background rebooter storm_reboots
}

# What the daemon does the first time touches pages that it keeps: stacks, the heap's parts.
robot_warms_up() {
    mark
    home_arp_drop on
    expect_log 'maximum ping loss count, restarting network' 100
    home_arp_drop off
    wait_state 1 60
    provisioning_begins
    mark
    app_says '{"event":"btnpress"}'
    wait_state 1 120
    tracking_begins
    expect_log 'discover threads done' 60
    tracking_ends
}
saved_network() { (cd "$STORE" && grep -a '' network.* | grep -av '^network\.\(last_prov_status\|interface\):'); }
# The daemon's own sockets there are named by its number, and counted on.
things_in_tmp() { (cd /tmp && find . ! -name 'syslog-*' | sed "s/_$(daemon_pid)-[0-9]*$/ of the daemon/" | sort); }

# A peer's requests, one each two seconds; not while nobody could answer them: each fault that silences the daemon says
# until when (by uptime_s).
storm_asks() {
    local id
    for ((id = 1; ; id++)); do
        ! cat $LAB/unasked.* 2>/dev/null | awk -v now="$(uptime_s)" '$1 > now { quiet = 1 } END { exit !quiet }' &&
            publish tarn/network/req/30/$id '{"get":"channel"}'
        sleep 2
    done
}
unasked() { echo 1000000000 >$LAB/unasked.$1; sleep 4; }   # what was asked before is answered
asked_again() { awk -v after="$2" '{ print $1 + after }' /proc/uptime >$LAB/unasked.$1; }
# A daemon that starts serves requests once its first commands have ended: a script that hangs holds it up.
starts_again() {
    start_daemon
    [[ ! -e $LAB/hangs ]] || unasked script
    asked_again start 20
}

# Between the two nobody else starts or stops the daemon; a folder, for the daemon would keep a locked descriptor.
alone() { until mkdir $LAB/alone 2>/dev/null; do sleep 0.2; done; }
others() { rmdir $LAB/alone; }

# A reboot that the daemon asks for: all that runs is gone, and what the board starts at boot is there again.
storm_reboots() {
    local seen=0
    while sleep 1; do
        (($(cat $LAB/reboots 2>/dev/null | wc -l) > seen)) || continue
        alone
        echo "[$(uptime_s)] reboot" >>"$LAB_RESULTS/storm.log"
        unasked start
        [[ ! -e $LAB/daemon.pid ]] || stop_daemon
        pkill -KILL 'wpa_supplicant|udhcpc|hostapd' -f --ns $$ --nslist net || true
        ip link set wlan0 down 2>/dev/null || true
        rm -rf /tmp/* /run/netwarden-board /run/ifstate
        ifup -a || true
        starts_again
        others
        seen=$(wc -l <$LAB/reboots)
    done
}

# storm_draw SEED MINUTES [NUMBER...]: $LAB/faults: number, begin, end (s), what it befalls, fault, a number for its choices.
storm_draw() {
    local state=$1 span=$(($2 * 60)) number=0 drawn begin end choice resource fault shortest longest; shift 2
    local kept=" $* "
    local -a rows
    local -A busy
    mapfile -t rows < <(grep . <<<"$STORM_FAULTS")
    draw 10; begin=$((5 + drawn))
    while ((begin < span)); do
        number=$((number + 1))
        draw ${#rows[@]}; read -r resource fault shortest longest <<<"${rows[drawn]}"
        draw $((longest - shortest + 1)); end=$((begin + shortest + drawn))
        ((end <= span)) || end=$span
        draw 1000; choice=$drawn
        if ((begin > ${busy[$resource]:-0})); then
            busy[$resource]=$end
            [[ $kept == "  " || $kept == *" $number "* ]] && echo "$number $begin $end $resource $fault $choice"
        fi
        draw 16; begin=$((begin + 2 + drawn))
    done >$LAB/faults
    cp $LAB/faults "$LAB_RESULTS/"
}
# draw N: $drawn, from 0 to N - 1; the same from a seed on each processor.
draw() {
    state=$(((state * 1103515245 + 12345) & 0x7fffffff))
    drawn=$(((state >> 8) % $1))
}

storm_plays() {
    local began line at switch number fault choice
    local -a lines   # no open file: a daemon that is started meanwhile would keep it
    mapfile -t lines < <(awk '{ print $2, "on", $1, $5, $6; print $3, "off", $1, $5, $6 }' $LAB/faults | sort -s -n)
    began=$(uptime_s)
    for line in "${lines[@]}"; do
        read -r at switch number fault choice <<<"$line"
        sleep "$(awk -v at="$at" -v now="$(since "$began")" 'BEGIN { print (at > now ? at - now : 0) }')"
        echo "[$(since "$began")] $number $fault $switch" | tee -a "$LAB_RESULTS/storm.log"
        "$fault" "$switch" "$choice"
    done
}

# What must hold once the world has healed.
storm_heals() {
    local began restarts
    began=$(uptime_s)
    expect "state 1, an address, the gateway's answer" $STORM_HEALS_S is_home
    figure "home again after" "$(since "$began") s"
    sleep 70   # whatever the last fault has set off ends, and the watchdog looks three times
    is_home || fail "at home, and lost again"
    newest netinfo "\"addr\":\"$(robot_address)\".*\"bssid\":\"$(home_bssid)\"" || fail "its netinfo is not the system's"
    newest wlcfg "\"ssid\":\"$(hex "$HOME_SSID")\"" || fail "its wlcfg is not the home's"
    saved_network | diff $LAB/saved.before - || fail "the saved network has changed"
    wait_until 60 eval '[[ ! $(more_in_tmp) ]]' || fail "more files in /tmp: $(more_in_tmp)"
    expect "$threads threads, not $(daemon_count task)" 60 eval '(($(daemon_count task) == threads))'
    wait_until 60 eval '[[ ! $(more_descriptors) ]]' || fail "more descriptors: $(more_descriptors; ss -xp; ss -uap)"
    expect "no child" 60 eval '[[ ! $(pgrep -P "$(daemon_pid)") ]]'
    [[ $(daemon_pid) != "$born" ]] || (($(daemon_status RssAnon) <= memory + 64)) ||
        fail "$memory kB have become $(daemon_status RssAnon)"
    refute_text "$HOME_KEY" "$(psk_of "$HOME_SSID" "$HOME_KEY")" 'canary of the robot'
    storm_answers
    restarts=$(sed -nE 's/.* COMMAND=[^ ]*\/(ifup|ifdown) wlan0$/\1/p' "$LAB_LOG" | uniq -d)
    [[ $restarts != *ifup* ]] || fail "an interface was brought up twice: two restarts at once"
    [[ ! -e $LAB/reboot-in-mission ]] || fail "rebooted in a mission"
}
is_home() { newest wifistat '"wifi":1,' && has_leased_address && gateway_answers; }
# newest KIND PATTERN: whether the newest message of that kind is like that.
newest() { grep -aF " network/events {\"$1\":" "$LAB_MESSAGES" | tail -1 | grep -qE -- "$2"; }
# Without the numbers of sockets and pipes.
daemon_descriptors() { find "/proc/$(daemon_pid)/fd" -type l -printf '%l\n' | sed 's/:\[.*//' | sort; }
more_descriptors() { daemon_descriptors | comm -13 $LAB/descriptors.before -; }
more_in_tmp() { things_in_tmp | comm -13 $LAB/tmp.before -; }

# storm_answers: each request has its answer, within three seconds.
storm_answers() {
    end asker
    sleep 4
    awk '$2 ~ "^tarn/network/req/30/" { n = $2; sub(".*/", "", n); asked[n] = $1 }
         $2 ~ "^tarn/30/resp/network/" { n = $2; sub(".*/", "", n); answered[n] = $1 }
         END { for (n in asked) if (!(n in answered) || answered[n] - asked[n] > 3) { print n, asked[n], answered[n]; bad = 1 }
               exit bad }' "$LAB_MESSAGES" || fail "requests without an answer within 3 s"
}

# --- the faults ------------------------------------------------------------------------------------------------------

ap_off() { if [[ $1 == on ]]; then home_ap_down; else home_ap_up; fi; }
ap_restarted() { [[ $1 == off ]] || home_ap_restart; }
ap_on_other_channel() { if [[ $1 == on ]]; then home_ap_restart channel=$((1 + $2 % 11)); else home_ap_restart; fi; }
ap_replaced() { if [[ $1 == on ]]; then end ap1; home_ap_up radio=2 channel=11; else end ap2; home_ap_up; fi; }
ap_key_changed() { if [[ $1 == on ]]; then home_ap_restart key='another horse 43'; else home_ap_restart; fi; }
gateway_silent() { home_arp_drop "$1"; }
dhcp_away() { if [[ $1 == on ]]; then end dhcp; else home_dhcp_up; fi; }
gateway_moved() {
    local from=$HOME_GATEWAY to=192.168.77.254
    [[ $1 == on ]] || { from=$to to=$HOME_GATEWAY; }
    end dhcp
    home ip addr del $from/24 dev br0
    home ip addr add $to/24 dev br0
    HOME_GATEWAY=$to home_dhcp_up
}
# Whoever has lost the broker tries again each second; one that is there and says nothing, each 30 s at the latest.
broker_killed() { if [[ $1 == on ]]; then unasked broker; end broker -KILL; end recorder; else broker_up; asked_again broker 6; fi; }
broker_frozen() {
    if [[ $1 == on ]]; then unasked broker; kill -STOP "$(<$LAB/broker.pid)"; else kill -CONT "$(<$LAB/broker.pid)"; asked_again broker 35; fi
}
broker_restarted() { if [[ $1 == on ]]; then unasked broker; broker_down; broker_up; else asked_again broker 6; fi; }
supplicant_pid() { cat /run/netwarden-board/wpa_supplicant.wlan0.pid 2>/dev/null || echo 0; }
supplicant_gets() { local pid; pid=$(supplicant_pid); ((pid == 0)) || kill "$1" "$pid" 2>/dev/null || true; }
supplicant_killed() { [[ $1 == off ]] || supplicant_gets -KILL; }
supplicant_ended() { [[ $1 == off ]] || supplicant_gets -TERM; }
supplicant_stopped() {
    if [[ $1 == on ]]; then supplicant_pid >$LAB/stopped; supplicant_gets -STOP; else kill -CONT "$(<$LAB/stopped)" 2>/dev/null || true; fi
}
udhcpc_killed() { [[ $1 == off ]] || kill -KILL "$(cat /run/udhcpc.wlan0.pid)" 2>/dev/null || true; }

# One of the programs that the daemon runs is another for a while.
STORM_SCRIPTS=(/usr/lib/netwarden-board/station /usr/bin/provision /usr/sbin/wpa_cli /usr/bin/arping
    /usr/bin/network_device_interfaces_control.sh)
script_is() {
    local path=${STORM_SCRIPTS[$2 % ${#STORM_SCRIPTS[@]}]}
    [[ -e $path || -e $path.good ]] || fail "no $path"
    if [[ $1 == off ]]; then repaired "$path"; else broken "$path" "$3"; fi
}
script_fails() { script_is "$1" "$2" 'exit 3'; }
script_babbles() { script_is "$1" "$2" 'head -c 20000 /dev/urandom'; }
script_slow() { script_is "$1" "$2" 'sleep 5; exec $0.good "$@"'; }
script_hangs() {
    script_is "$1" "$2" 'exec sleep 100000'
    if [[ $1 == on ]]; then touch $LAB/hangs; return; fi
    rm $LAB/hangs
    pkill -f '^sleep 100000$' || true   # those that were caught in it
    [[ ! -e $LAB/unasked.script ]] || asked_again script 20
}

# The store on a disk of its own, of which nothing is left; what the daemon wrote meanwhile stays when it goes.
store_full() {
    if [[ $1 == on ]]; then
        cp -a $STORE $LAB/store
        mount -t tmpfs -o size=256k store $STORE
        cp -a $LAB/store/. $STORE
        dd if=/dev/zero of=$STORE/filler bs=4k 2>/dev/null || true
    else
        rm $STORE/filler
        rm -r $LAB/store; cp -a $STORE $LAB/store
        umount -l $STORE
        find $STORE -type f -delete; cp -a $LAB/store/. $STORE; rm -r $LAB/store
    fi
}
store_read_only() {
    if [[ $1 == on ]]; then mount --bind $STORE $STORE; mount -o remount,ro,bind $STORE; else umount -l $STORE; fi
}
store_damaged() { if [[ $1 == on ]]; then head -c 5000 /dev/urandom >$STORE/network.last_prov_status; else kvs_set network.last_prov_status 1; fi; }

radio_taken() {
    if [[ $1 == on ]]; then
        cat /sys/class/net/wlan0/phy80211/index >$LAB/phy
        iw "phy#$(<$LAB/phy)" set netns name phone
    else
        phone iw "phy#$(<$LAB/phy)" set netns $$
    fi
}

restart_wanted() { [[ $1 == off ]] || publish tarn/network/event/5/$RANDOM '{"event":"restartNetwork"}' || true; }
provisioning() { if [[ $1 == on ]]; then app_wants_provisioning; else app_says '{"event":"btnpress"}'; fi || true; }
training() { if [[ $1 == on ]]; then app_says '{"event":"training"}'; else app_says '{"event":"btnpress"}'; fi || true; }
tracking() { if [[ $1 == on ]]; then track start; else track stop; fi || true; }
log_level() { publish tarn/network/req/31/$RANDOM "{\"set_log_level\":\"$([[ $1 == on ]] && echo dbg || echo info)\"}" || true; }
probe_flood() {
    if [[ $1 == off ]]; then end flood; return; fi
    background flood "${in_home[@]}" perl -e 'use Socket; for (;;) {
        socket(my $s, AF_INET, SOCK_DGRAM, 0); setsockopt($s, SOL_SOCKET, SO_BROADCAST, 1);
        send($s, $_, 0, sockaddr_in(5678, inet_aton("192.168.77.255"))) for ("halvikmcs", "x" x 1400, "");
        select(undef, undef, undef, 0.01); }'
}
# What nobody could hear nobody need know: the robot's core tells it again, as docking, which ends nobody's provisioning, and
# the mission counts from the third time on.
mission() {
    if [[ $1 == on ]]; then background core core_tells; return; fi
    end core
    rm -f $LAB/in-mission
    core_says none
}
core_says() { publish brisk/network/events "{\"cleanMissionStatus\":{\"cycle\":\"$1\",\"phase\":\"run\"}}" || true; }
core_tells() {
    local told
    core_says clean
    for ((told = 2; ; told++)); do
        sleep 5
        core_says dock
        ((told < 3)) || touch $LAB/in-mission
    done
}
daemon_killed() {
    alone
    if [[ $1 == on ]]; then unasked start; [[ ! -e $LAB/daemon.pid ]] || stop_daemon
    elif [[ ! -e $LAB/daemon.pid ]]; then starts_again; fi
    others
}
clock_wrong() {
    local years=$(($2 % 2 ? 3 : -3))
    [[ $1 == on ]] || years=$((-years))
    [[ $1 == off ]] || unasked clock
    date -s "@$(($(date +%s) + years * 31536000))" >/dev/null
    [[ $1 == on ]] || asked_again clock 5
}
