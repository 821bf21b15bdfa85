#!/bin/sh
# Everything about the robot's Wi-Fi that helps to tell why it is not connected, as text. netwarden
# compresses it into a file that may leave the robot, and masks names and addresses on the way; what
# its patterns cannot see (names in columns or quotes) and every secret are masked here.
#
# It ends by itself: each command has a time limit, each section a limit of lines.

# shellcheck source=lib/common.sh
. /usr/lib/netwarden-board/common.sh

case ${1-} in
'') ;;
-h | --help)
    echo "usage: wifilogs.sh"
    exit 0
    ;;
*) die "$EX_USAGE" "usage: wifilogs.sh" ;;
esac

# Kernel log, control sockets and configuration are root's; without them half a log is better than none.
if [ "$(id -u)" -ne 0 ] && sudo -n -l "$0" >/dev/null 2>&1; then
    exec sudo -n "$0"
fi

limit_s=2
limit_lines=200

# Secrets, in configuration files and in messages of the broker; then the names of networks. netwarden
# masks names too, but finds "ssid=" only at the start of a line. What follows a name in quotes is
# kept: it holds the reason why a network was refused. A JSON string ends at the first quote without
# a backslash, or where the log cut it; netwarden shows line ends inside a message as "?".
mask() {
    sed -E \
        -e 's/((psk|password|passphrase|wep_key[0-3])[]0-9[]*[=:] *).*/\1********/I' \
        -e 's/("(ssid|pass|robotpass|password|psk|[^"]*\\u[^"]*)"[ ?]*:[ ?]*)("([^"\\]|\\.)*\\?"?|[^",}]+)/\1"********"/gI' \
        -e 's/(configure sta to ).*/\1********/' \
        -e "s/(ssid2?=)(\"|').*(\"|')/\1'********'/I" \
        -e "s/((^|[^a-z_])ssid2?(\[[0-9]+\])?=)[^\"'].*/\1********/I" \
        -e 's/((^|[^a-z_])ssid[: ]? ).*/\1********/I'
}

# section TITLE COMMAND ARGS...
section() {
    printf '\n==== %s\n' "$1"
    shift
    if ! command -v "$1" >/dev/null && ! busybox "$1" --help >/dev/null 2>&1; then
        echo "($1: not on this robot)"
        return
    fi
    command -v "$1" >/dev/null || set -- busybox "$@"
    bb timeout "$limit_s" "$@" 2>&1 </dev/null | tail -n "$limit_lines" | mask
}

# drop_column N: the tab-separated column N, which holds a network's name.
drop_column() {
    awk -F '\t' -v OFS='\t' -v n="$1" 'NF >= n && NR > 1 { $n = "********" } { print }'
}

wpa() {
    bb timeout "$limit_s" wpa_cli -i"$STATION" "$@" 2>&1 </dev/null
}

supplicant() {
    printf '\n==== supplicant: %s\n' "$STATION"
    if [ "$(wpa ping)" != PONG ]; then
        echo "(does not answer)"
    else
        supplicant_state
    fi
    echo "-- $WPA_CONF"
    mask <"$WPA_CONF" 2>&1
}

supplicant_state() {
    wpa status | mask
    wpa signal_poll
    echo "-- networks"
    wpa list_networks | drop_column 2
    echo "-- access points in reach"
    wpa scan_results | drop_column 5 | tail -n 60
}

soft_ap() {
    printf '\n==== soft AP: %s\n' "$SOFTAP"
    if [ ! -S "/var/run/hostapd/$SOFTAP" ]; then
        echo "(not up)"
        return
    fi
    bb timeout "$limit_s" hostapd_cli -i"$SOFTAP" status </dev/null 2>&1 | mask
    bb timeout "$limit_s" hostapd_cli -i"$SOFTAP" all_sta </dev/null 2>&1 | tail -n 60
}

# A message of several lines as one: its sender is named on the first, and journalctl indents the others.
join_lines() {
    awk 'NR > 1 && !/^[ \t]/ { print "" } { printf "%s", $0 } END { print "" }'
}

# The system log's lines of those who have to do with Wi-Fi, from wherever this robot keeps it.
system_log() {
    printf '\n==== system log\n'
    for log in /var/log/messages /var/log/syslog; do
        [ -r "$log" ] || continue
        tail -n 5000 "$log"
        break
    done >"$scratch"
    [ -s "$scratch" ] || bb timeout "$limit_s" logread >"$scratch" 2>/dev/null </dev/null
    [ -s "$scratch" ] ||
        bb timeout "$limit_s" journalctl -q -n 5000 -o short >"$scratch" 2>/dev/null </dev/null
    # netwarden calls itself "network" there.
    join_lines <"$scratch" |
        grep -E ' network(\[[0-9]+\])?: |netwarden|wpa_supplicant|hostapd|udhcpc|udhcpd|station:|softap:|provision:|default\.script|wlan|cfg80211|80211' |
        tail -n 1500 | mask
}

scratch=$(mktemp) || die "$EX_CANTCREAT" "no room for a temporary file"
trap 'rm -f "$scratch"' EXIT
trap 'exit 1' INT TERM HUP

echo "Wi-Fi log, $(date -u '+%Y-%m-%d %H:%M:%S') UTC, up $(cut -d . -f 1 /proc/uptime) s"
section "version" version
section "settings" provision
section "interfaces that ifup brought up" cat /run/ifstate
section "addresses" ip addr
section "routes" ip route
section "neighbours" ip neigh
section "name servers" cat /etc/resolv.conf
supplicant
section "link" iw dev "$STATION" link
section "radio interfaces" iw dev
section "station statistics" iw dev "$STATION" station dump
section "wireless statistics" cat /proc/net/wireless
section "regulatory domain" iw reg get
soft_ap
section "processes" top -b -n 1
section "kernel" dmesg
system_log
