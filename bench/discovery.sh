#!/bin/bash
# Measures how long the running daemon takes to answer an app's probe.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<USAGE
usage: bench/discovery.sh [COUNT]

Runs the daemon in a sandbox on this machine (the robot image as its root, broker, corehub and system log), sends it
COUNT discovery probes (default 10000), each when the last one was answered, again with a quieter log, and does the same
with a service that only sends back what it gets. Prints median and 99th of each. Builds with the preset "bench".
USAGE
}
count=10000
case ${1:-} in
--help | -h) usage; exit 0 ;;
[1-9]*) count=$1 ;;
?*) usage >&2; exit 2 ;;
esac
image=build/image/rootfs
[[ -d $image ]] || { echo "bench/discovery.sh: no robot image; run scripts/setup" >&2; exit 1; }

export PATH=/usr/lib/ccache:$PATH
cmake --preset bench >/dev/null
cmake --build --preset bench --target netwarden peers probe_time >/dev/null

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cp -r $image/etc "$scratch/" 2>/dev/null || true # what others may not read, nobody needs here
mkdir "$scratch/bin"
printf '#!/bin/sh\necho "Product Version: 12.0.1"\n' >"$scratch/bin/version"
chmod 755 "$scratch/bin/version"
install -m 755 build/bench/{netwarden,peers,bench/probe_time} lab/guest/syslogd "$scratch/"
identity=()
[[ $(id -u) == 0 ]] || identity=(--unshare-user --uid 0 --gid 0)

bwrap "${identity[@]}" --unshare-all --cap-add ALL --die-with-parent --ro-bind $image / --bind "$scratch/etc" /etc \
    --ro-bind "$scratch/bin" /usr/local/bin \
    --dev /dev --proc /proc --tmpfs /tmp --tmpfs /run --tmpfs /opt --ro-bind "$scratch" /mnt \
    --dir /opt/halvik/persistent/opt/halvik/data/kvs bash -euo pipefail -s "$count" <<'ROBOT'
exec 2>/tmp/errors
trap '[[ $? == 0 ]] || tail -n 3 /tmp/errors /tmp/broker /tmp/log' EXIT
ip link set lo up
ip link add wlan0 type veth peer name home
ip addr add 192.168.77.20/24 dev wlan0
: >/run/ifstate
perl /mnt/syslogd /tmp/log &
printf '%s\n' 'user root' 'allow_anonymous true' 'listener 1883 127.0.0.1' >/tmp/mosquitto.conf
mosquitto -c /tmp/mosquitto.conf >/tmp/broker 2>&1 &
/mnt/peers >/dev/null &
echo -n 0123456789ABCDEF >/opt/halvik/persistent/opt/halvik/data/kvs/product.robotid
/mnt/netwarden >/dev/null &
for _ in {1..60}; do [[ $(ss -Hlun sport = 5678) ]] && break; sleep 1; done
/mnt/probe_time echo 5679 &
sleep 1
measure() {
    took=$(/mnt/probe_time ask "$2" "$3" halvikmcs)
    printf '%-42s %7s us %7s us\n' "$1" $took
}
printf '%-42s %10s %10s\n' "probes answered, one at a time: $1" median 99th
measure netwarden 5678 "$1"
(($(grep -c 'disc_advertised.*"cap":{"ota"' /tmp/log) > $1))
mosquitto_pub -h 127.0.0.1 -q 1 -t tarn/network/req/5/1 -m '{"set_log_level":"err"}'
sleep 1
measure "netwarden, logging errors only" 5678 "$1"
measure "bare echo" 5679 "$1"
ROBOT
