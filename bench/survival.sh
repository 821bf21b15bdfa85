# How a manager of the station's network gets through what happens in a home, seen from outside. Played by bench/survival,
# which says which manager and which rows.
# radios: 4
MANAGER=${MANAGER:-netwarden} ROWS=${ROWS:-a b c d e f g h i k idle} ROUNDS=${ROUNDS:-3}
declare -r NEVER_S=200

# --- the managers: NAME_begins makes the home known to it and starts it, NAME_starts, NAME_ends (the radio is off then),
# NAME_killed (nobody could tidy up); NAME_pid is its process, NAME_wifi the one that speaks to the radio. What a manager has
# no word of its own for is done as other_WORD says, with its name.

netwarden_begins() { save_network; kvs_set product.robotid 0123456789ABCDEF; start_daemon; }
netwarden_starts() { start_daemon; }
netwarden_ends() { stop_daemon; ifdown wlan0 >&2 || true; }
netwarden_killed() { stop_daemon; }
netwarden_pid() { daemon_pid; }
netwarden_wifi() { cat /run/netwarden-board/wpa_supplicant.wlan0.pid; }

# The others are asked for nothing but this home on this interface, as their own documents say.
bus_is_up() {
    [[ ! -e $LAB/bus.pid ]] || return 0
    mkdir -p /run/dbus
    background bus dbus-daemon --system --nofork --nopidfile
    wait_until 10 test -S /run/dbus/system_bus_socket
    background udev /lib/systemd/systemd-udevd
    wait_until 10 udevadm control --ping
    udevadm trigger --action=add
    udevadm settle
}
# The manager, where it still runs, and the supplicant that the message bus has started for it.
other_ends() {
    if [[ -e $LAB/$1.pid ]] && kill -0 "$(other_pid "$1")"; then end "$1"; fi
    pkill -x wpa_supplicant && sleep 1 || true
    ip addr flush dev wlan0
    ip link set wlan0 down
}
other_killed() { end "$1" -KILL; }   # its supplicant stays, as it does when a manager crashes
other_pid() { cat "$LAB/$1.pid"; }
other_wifi() { pgrep -x wpa_supplicant; }

networkmanager_begins() {
    bus_is_up
    printf '%s\n' '[main]' 'plugins=keyfile' '[keyfile]' 'unmanaged-devices=except:interface-name:wlan0' >/etc/NetworkManager/NetworkManager.conf
    cat >/etc/NetworkManager/system-connections/home.nmconnection <<CONNECTION
[connection]
id=home
type=wifi
interface-name=wlan0
[wifi]
ssid=$HOME_SSID
[wifi-security]
key-mgmt=wpa-psk
psk=$HOME_KEY
[ipv4]
method=auto
[ipv6]
method=disabled
CONNECTION
    chmod 600 /etc/NetworkManager/system-connections/home.nmconnection   # or it is ignored
    networkmanager_starts
}
networkmanager_starts() { background networkmanager NetworkManager --no-daemon; }

connman_begins() {
    bus_is_up
    mkdir -p /var/lib/connman
    printf '%s\n' '[global]' 'OfflineMode=false' '[WiFi]' 'Enable=true' 'Tethering=false' >/var/lib/connman/settings
    printf '%s\n' '[service_home]' 'Type=wifi' "Name=$HOME_SSID" "Passphrase=$HOME_KEY" 'IPv6=off' >/var/lib/connman/home.config
    connman_starts
}
connman_starts() { background connman connmand --nodaemon --device=wlan0; }

iwd_begins() {
    bus_is_up
    mkdir -p /var/lib/iwd /etc/iwd
    printf '%s\n' '[General]' 'EnableNetworkConfiguration=true' 'UseDefaultInterface=true' >/etc/iwd/main.conf
    printf '%s\n' '[Security]' "Passphrase=$HOME_KEY" >"/var/lib/iwd/$HOME_SSID.psk"
    iwd_starts
}
iwd_starts() { background iwd /usr/libexec/iwd --interfaces wlan0; }
iwd_wifi() { other_pid iwd; }

# manager WORD...: what the manager at hand does.
manager() { if declare -F "${MANAGER}_$1" >/dev/null; then "${MANAGER}_$1"; else "other_$1" "$MANAGER"; fi; }

# --- what the watcher saw -----------------------------------------------------------------------------------------------

answered_since() { awk -v from="$1" '$1 > from { found = 1; exit } END { exit !found }' "$LAB_RESULTS/watcher.log"; }
# answered SECONDS: the gateway answers, from now on.
answered() { local from; from=$(uptime_s); wait_until "$1" answered_since "$from"; }
# settled: it has answered for so long that nothing more is under way; who never does is helped by a new start.
settled() {
    if ! answered 300; then
        manager ends
        manager starts
        answered 300 || fail "$MANAGER does not come home"
    fi
    sleep 45
    answered 300 || fail "$MANAGER does not stay at home"
}
# silence FROM: the longest pause between two answers since FROM, which is one; 0 for none over a second.
silence() {
    awk -v from="$1" 'BEGIN { last = from } $1 > from { if ($1 - last > longest) longest = $1 - last; last = $1 }
        END { printf "%.1f\n", (longest > 1 ? longest : 0) }' "$LAB_RESULTS/watcher.log"
}
# back_after FROM: from then until the first answer.
back_after() { awk -v from="$1" '$1 > from { printf "%.1f\n", $1 - from; exit }' "$LAB_RESULTS/watcher.log"; }
# comes_back: seconds from now to the first answer, or "never".
comes_back() {
    local from; from=$(uptime_s)
    if wait_until "${1:-$NEVER_S}" answered_since "$from"; then back_after "$from"; else echo never; fi
}

# --- the rows -----------------------------------------------------------------------------------------------------------

row_a() { manager ends; sleep 40; manager starts; comes_back; }   # the kernel has forgotten what it heard
row_b() { worst_in 60 home_ap_restart; }
row_c() { home_ap_down; sleep 30; home_ap_up; comes_back; }
row_d() { home_ap_down; sleep 180; home_ap_up; comes_back; }
# A gateway, or the access point before it, that has forgotten the station: it answers again who joins anew.
row_e() {
    local from before; from=$(uptime_s) before=$(associations)
    home_arp_drop on
    wait_until $NEVER_S associated_again "$before" || { home_arp_drop off; echo never; return; }
    home_arp_drop off
    comes_back >/dev/null
    silence "$from"
}
associations() { grep -c 'AP-STA-CONNECTED' "$LAB_RESULTS/ap1.log" || true; }
associated_again() { (($(associations) > $1)); }
row_f() {
    manager ends
    end dhcp
    manager starts
    sleep 60
    local from; from=$(uptime_s)
    home_dhcp_up
    wait_until $NEVER_S answered_since "$from" || { echo never; return; }
    back_after "$from"
}
row_g() { worst_in 100 kill_wifi; }
kill_wifi() { kill -KILL "$(manager wifi)"; }
row_h() {
    if (($1 % 2)); then
        worst_in 60 on_channel 11 1
    else
        worst_in 60 on_channel 1 2
    fi
    other_ap_gone
}
on_channel() { end ap1; home_ap_up channel="$1" radio="$2"; }
other_ap_gone() { [[ ! -e $LAB/ap2.pid ]] || end ap2; [[ ! -e $LAB/ap1.pid ]] || end ap1; home_ap_up; }
row_k() { worst_in 60 killed_and_started; }
killed_and_started() { manager killed; manager starts; }

# worst_in SECONDS COMMAND...: the longest silence in the time after it; "never" where nothing answers even then.
worst_in() {
    local from seconds=$1; shift
    from=$(uptime_s)
    "$@"
    sleep "$seconds"
    if wait_until $NEVER_S answered_since "$(uptime_s)"; then silence "$from"; else echo never; fi
}

# memory and processor of the manager itself; what it runs is counted with it, for its children end.
row_idle() {
    local pid before; pid=$(manager pid)
    sleep 30
    before=$(ticks "$pid")
    sleep 120
    awk -v before="$before" -v after="$(ticks "$pid")" -v hz="$(getconf CLK_TCK)" '
        BEGIN { split(before, b, " "); split(after, a, " ") }
        /^Pss:/ { pss = $2 } /^Private_Dirty:/ { dirty = $2 }
        END { printf "%d/%d kB, %.3f+%.3f s\n", pss, dirty, (a[1] - b[1]) / hz, (a[2] - b[2]) / hz }' "/proc/$pid/smaps_rollup"
}
ticks() { awk '{ print $14 + $15, $16 + $17 }' "/proc/$1/stat"; }

# --- the table ----------------------------------------------------------------------------------------------------------

home_up
start_peers --next-cleaning 100000
background watcher perl /lab/guest/watcher wlan0 $HOME_GATEWAY
manager begins
settled   # what a radio needs longer for the first time is nobody's merit
home_ap_restart
settled
for row in $ROWS; do
    rounds=$ROUNDS
    [[ $row != idle ]] || rounds=1
    for ((round = 1; round <= rounds; round++)); do
        settled
        sleep $((round * 6))   # so that what comes at an interval comes at another moment
        value=$("row_$row" $round)
        figure "$MANAGER $row" "$value"
    done
done
