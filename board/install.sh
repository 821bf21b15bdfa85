#!/bin/sh
# Installs the board's scripts and configuration into a root file system:
#   install.sh [--keep-conf] DESTDIR
# DESTDIR "/" is the running robot. --keep-conf leaves files of /etc that are there already.

set -eu

usage='usage: install.sh [--keep-conf] DESTDIR'
keep=no
if [ "${1-}" = --keep-conf ]; then
    keep=yes
    shift
fi
case ${1-} in
-h | --help)
    echo "$usage"
    exit 0
    ;;
'' | -*)
    echo "$usage" >&2
    exit 64
    ;;
esac
[ $# -eq 1 ] && [ -d "$1" ] || {
    echo "install.sh: '$*' is not one existing folder; $usage" >&2
    exit 64
}

from=$(cd "$(dirname "$0")" && pwd)
root=${1%/}

put() { # MODE SOURCE TARGET
    mkdir -p "$root$(dirname "$3")"
    cp "$from/$2" "$root$3.new"
    chmod "$1" "$root$3.new"
    mv -f "$root$3.new" "$root$3"
}

put_conf() { # MODE FILE-UNDER-etc
    [ "$keep" = yes ] && [ -e "$root/etc/$2" ] || put "$1" "etc/$2" "/etc/$2"
}

for script in provision version get_lang.sh network_device_interfaces_control.sh \
    network_dhcp_arp_control.sh webserver_control.sh; do
    put 755 "$script" "/usr/bin/$script"
done
# The one place where netwarden looks for it.
put 755 wifilogs.sh /opt/halvik/bin/wifilogs.sh

for part in common.sh radio.sh; do
    put 644 "lib/$part" "/usr/lib/netwarden-board/$part"
done
for part in station joined softap setup udhcpc-relay; do
    put 755 "lib/$part" "/usr/lib/netwarden-board/$part"
done
put 644 www/index.html /usr/share/netwarden-board/www/index.html
put 755 www/cgi-bin/status /usr/share/netwarden-board/www/cgi-bin/status

for part in style.css script.js portals networks.awk html.awk show.awk raw.awk rows.awk form.awk lang/en lang/de; do
    put 644 "setup/$part" "/usr/share/netwarden-board/setup/$part"
done
put 755 setup/page /usr/share/netwarden-board/setup/cgi-bin/index.cgi

put_conf 644 netwarden-board/board.conf
put_conf 644 netwarden-board/hostapd.conf.template
put_conf 644 network/interfaces
put_conf 755 udhcpc/default.script
put_conf 644 mosquitto/mosquitto.conf
put_conf 440 sudoers.d/netwarden

# ifup runs the scripts of these folders, and fails when one of the folders is missing.
for phase in pre-up up down post-down; do
    mkdir -p "$root/etc/network/if-$phase.d"
done

# The supplicant and hostapd give their control sockets to this group.
if [ -f "$root/etc/group" ] && ! grep -q '^apps:' "$root/etc/group"; then
    echo "install.sh: note: $root/etc/group has no group 'apps', which the supplicant needs" >&2
fi
