#!/bin/sh
# Switches the DHCP client's no-ARP mode:
#   network_dhcp_arp_control.sh enable     the client uses leases without probing them
#   network_dhcp_arp_control.sh disable    the client probes each leased address with ARP first
#
# netwarden enables it while it tracks home devices: its sweep sends ARP requests to every address
# of the home, and a device that answers for others would make the client decline its own lease.
# The mode outlives ifdown and ifup, not a reboot.

# shellcheck source=lib/common.sh
. /usr/lib/netwarden-board/common.sh

[ $# -eq 1 ] || die "$EX_USAGE" "usage: network_dhcp_arp_control.sh enable|disable"

mode=$RUN_DIR/noarp
case $1 in
enable)
    [ ! -e "$mode" ] || exit 0
    mkdir -p "$RUN_DIR" && true >"$mode" || die "$EX_CANTCREAT" "cannot write $mode"
    ;;
disable)
    [ -e "$mode" ] || exit 0
    rm -f "$mode" || die "$EX_CANTCREAT" "cannot remove $mode"
    ;;
-h | --help)
    echo "usage: network_dhcp_arp_control.sh enable|disable"
    exit 0
    ;;
*) die "$EX_USAGE" "usage: network_dhcp_arp_control.sh enable|disable, not '$1'" ;;
esac

exec /usr/lib/netwarden-board/station redhcp
