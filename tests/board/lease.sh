#!/bin/sh
# Event script of the phone's DHCP client in network.sh: notes what it was offered.
# shellcheck disable=SC2154
[ "$1" != bound ] || echo "$ip $subnet ${router-} ${dns-}" >/tmp/phone.lease
