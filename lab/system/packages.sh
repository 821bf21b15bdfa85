# The Debian packages on a small Debian with systemd: install, connect, reboot, upgrade, purge. Played by lab/packages.
# limit: 900 s

# --- a Debian, which boots itself ------------------------------------------------------------------------------------------

system_boots() {
    mkdir -p /sys/fs/cgroup
    mountpoint -q /sys/fs/cgroup || mount -t cgroup2 cgroup /sys/fs/cgroup
    # A /run and a /tmp of its own, as after each boot; network and radios are those of this machine.
    background system unshare --mount --pid --fork --mount-proc sh -c '
        mount -t tmpfs -o mode=755 run /run && mkdir -m 1777 /run/lock &&
        mount -t tmpfs -o mode=1777 tmp /tmp && exec env container=lab /sbin/init'
    expect "systemd" 60 system_runs
}
system_pid() { pgrep -P "$(<$LAB/system.pid)"; }
system() { nsenter -t "$(system_pid)" -m -p -r -w -- "$@"; }
system_runs() { system systemctl is-system-running | grep -qE 'running|degraded'; }
system_reboots() {
    pkill -KILL mosquitto_sub || true   # the recorder: it would wait for its broker
    system systemctl reboot || true
    expect "the end of the system" 90 gone "$(<$LAB/system.pid)"
    pkill -KILL -f '^[^ ]*(wpa_supplicant|udhcpc)' || true
    rm $LAB/system.pid
    ip link set wlan0 down   # as the machine's power has been away
    ip addr flush dev wlan0
    system_boots
}

# listens: what the robot's broker carries is recorded from now on.
listens() {
    expect "the robot's broker" 60 system mosquitto_pub -t lab/broker -m up
    system mosquitto_sub -q 1 -t '#' -F '%U %t %p' >>"$LAB_MESSAGES" 2>/dev/null 3>&- &
    disown
    sleep 1
    mark
}
apt_get() { system env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o Dpkg::Use-Pty=0 "$@" >>"$LAB_RESULTS/apt.log" 2>&1; }
# what is not the packages' own and comes and goes with a system that runs
all_files() { find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /lab -o -path /results -o -path /var/log \
    -o -path /var/cache -o -path /var/tmp -o -path /var/lib/apt -o -path /var/lib/dpkg -o -path /var/lib/mosquitto -o -path /var/lib/systemd \
    -o -path /etc/systemd/system/getty.target.wants -o -path /root/.config \) -prune -o -print | sort; }
# What the factory has stored, and the folders it is in, are no package's.
factory_files() {
    local path=$STORE/product.robotid
    while [[ $path != /opt ]]; do echo "$path"; path=${path%/*}; done
}

: >"$LAB_LOG"
: >"$LAB_MESSAGES"
home_up
system_boots
all_files >$LAB/files.before

step "apt install: the service is there, and is not started by itself"
mkdir /root/debs
cp /lab/put/*.deb /root/debs/
apt_get install /root/debs/netwarden_*.deb /root/debs/netwarden-board_*.deb
[[ $(system systemctl is-enabled netwarden) == disabled ]]
[[ $(system systemctl is-active netwarden) == inactive ]]
system netwarden -v >"$LAB_RESULTS/version" 2>&1 || true
system netwardenctl doctor >"$LAB_RESULTS/doctor.before" 2>&1 || true

step "the network is saved as the documents say, the service enabled: connected"
save_network
kvs_set product.robotid 0123456789ABCDEF
listens
system systemctl enable --now netwarden
wait_state 1 120
gateway_answers
system netwardenctl doctor >"$LAB_RESULTS/doctor" 2>&1 || fail "doctor: $(grep -v '^ok' "$LAB_RESULTS/doctor")"
system netwardenctl wait --timeout 20
system netwardenctl report "$LAB_RESULTS/report" >/dev/null || true
refute "the password in the report" grep -F "$HOME_KEY" "$LAB_RESULTS/report"
figure "start to connected" "$(system systemctl show -p ExecMainStartTimestampMonotonic --value netwarden | awk -v now="$(uptime_s)" '{ printf "%.1f s", now - $1 / 1000000 }')"

step "reboot: connected"
system_reboots
listens
wait_state 1 120

step "upgrade with the link up: the daemon starts anew, and that is all"
supplicants() { pgrep -fc "wpa_supplicant .*-iwlan0" || true; }
[[ $(supplicants) == 1 ]]
daemon=$(system systemctl show -p MainPID --value netwarden)
broker=$(system systemctl show -p MainPID --value mosquitto)
for deb in /root/debs/*.deb; do
    dpkg-deb -R "$deb" /root/next
    sed -i 's/^Version: .*/&+1/; s/(>= \([^)]*\))/(>= \1)/' /root/next/DEBIAN/control
    rm "$deb"
    dpkg-deb -b /root/next "${deb%.deb}+1.deb" >/dev/null
    rm -r /root/next
done
mark
apt_get install /root/debs/*.deb
[[ $(system systemctl show -p MainPID --value netwarden) != "$daemon" ]]
[[ $(system systemctl show -p MainPID --value mosquitto) == "$broker" ]] || fail "the broker was started anew, too"
wait_state 1 120
[[ $(supplicants) == 1 ]]

step "purge: nothing is left but what the factory has stored"
apt_get purge netwarden netwarden-board
refute "netwarden runs" pgrep -x netwarden
expect "no supplicant" 10 eval '[[ $(supplicants) == 0 ]]'
has_no_address
rm -r /root/debs
all_files >$LAB/files.after
left=$(diff <(factory_files | sort - $LAB/files.before) $LAB/files.after | grep -vE '^[0-9]' || true)
[[ ! $left ]] || fail "left, or gone with it: $left"
