#!/bin/sh
# Adds or removes an interface on the station's radio:
#   network_device_interfaces_control.sh --interface=monitor|softap --action=add|del
#
# Small Wi-Fi chips run two interfaces at once: the station and one other, either the soft AP (while
# a phone provisions the robot) or the monitor (while home devices are tracked). So netwarden
# removes the one before it adds the other. The monitor gets no channel: it is wherever the station
# is, and a hop to an access point on another channel takes both there.
#
# An interface that is there without our doing, because the driver makes it or because it is a
# radio of its own, is left alone, and both actions succeed.

# shellcheck source=lib/common.sh
. /usr/lib/netwarden-board/common.sh

usage='usage: network_device_interfaces_control.sh --interface=monitor|softap --action=add|del'

interface='' action=''
for argument in "$@"; do
    case $argument in
    -h | --help)
        echo "$usage"
        exit 0
        ;;
    --interface=monitor) interface=$MONITOR type=monitor ;;
    --interface=softap) interface=$SOFTAP type=__ap ;;
    --action=add) action=add ;;
    --action=del) action=del ;;
    *) die "$EX_USAGE" "unknown argument '$argument'; $usage" ;;
    esac
done
[ -n "$interface" ] && [ -n "$action" ] || die "$EX_USAGE" "$usage"

added=$RUN_DIR/added.$interface

add() {
    iface_exists "$interface" && return 0
    iface_exists "$STATION" || die "$EX_UNAVAILABLE" "there is no interface $STATION to share a radio with"
    mkdir -p "$RUN_DIR" && true >"$added" || die "$EX_CANTCREAT" "cannot write $added"
    iw dev "$STATION" interface add "$interface" type "$type" && return 0
    rm -f "$added"
    die "$EX_UNAVAILABLE" "the radio of $STATION takes no $type interface beside it"
}

del() {
    [ -e "$added" ] || return 0
    if iface_exists "$interface"; then
        bb ip link set "$interface" down
        iw dev "$interface" del || die "$EX_UNAVAILABLE" "cannot remove $interface"
    fi
    rm -f "$added"
}

"$action"
