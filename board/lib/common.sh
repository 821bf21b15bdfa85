# shellcheck shell=sh disable=SC2034
# What the board scripts share: settings, messages, atomic files, processes by pid file.
# Sourced, not run. POSIX sh: on the robot it is busybox ash.

PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export PATH
export LC_ALL=C
unset CDPATH

# Exit codes, as in BSD's sysexits.h.
EX_USAGE=64
EX_UNAVAILABLE=69
EX_CANTCREAT=73
EX_CONFIG=78

BOARD_CONF=/etc/netwarden-board/board.conf

# say TEXT: to the system log and to standard error.
say() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    logger -t "${0##*/}" -- "$*" 2>/dev/null || :
}

# die CODE TEXT
die() {
    die_code=$1
    shift
    say "$*"
    exit "$die_code"
}

if [ -e "$BOARD_CONF" ]; then
    # A script that cannot read its settings must not work with others: it would take down the
    # wrong interface. `.` alone would end the shell without a word.
    [ -r "$BOARD_CONF" ] || die "$EX_CONFIG" "$BOARD_CONF: not readable"
    sh -n "$BOARD_CONF" 2>/dev/null || die "$EX_CONFIG" "$BOARD_CONF: not a shell fragment"
    # shellcheck source=/dev/null
    . "$BOARD_CONF"
fi

: "${STATE_DIR:=/etc/netwarden-board/state}"
: "${RUN_DIR:=/run/netwarden-board}"
: "${STATION:=wlan0}"
: "${SOFTAP:=wlan1}"
: "${SOFTAP_ALIAS:=p2p0}"
: "${MONITOR:=mon0}"
: "${WPA_CONF:=/etc/wpa_supplicant.conf}"
: "${WPA_DRIVER:=nl80211}"
: "${WPA_FLAGS=-s}"
: "${DHCP_TRIES:=3}"
: "${DHCP_PAUSE_S:=2}"
: "${DHCP_REST_S:=1}"
: "${DHCP_ARP_MS:=300}"
: "${SOFTAP_ADDR:=192.168.10.1}"
: "${SOFTAP_PREFIX:=24}"
: "${SOFTAP_LEASE_FIRST:=192.168.10.100}"
: "${SOFTAP_LEASE_LAST:=192.168.10.120}"
: "${SOFTAP_LEASE_S:=600}"
: "${REG_DOMAIN_DEFAULT:=00}"
: "${DIAG_ADDR:=127.0.0.1}"
: "${DIAG_PORT:=8080}"
: "${SETUP_PAGE:=no}"
: "${SETUP_BRAND:=/etc/netwarden-board/setup}"
: "${SETUP_LANGUAGE:=en}"
: "${SETUP_FAREWELL_S:=60}"
: "${SETUP_LIMIT_S:=400}"
: "${PRODUCT_RELEASE:=/etc/product-release}"
: "${LANGUAGE_PACK:=/etc/language-pack}"

# bb APPLET ARGS...: a busybox applet by its name, linked or not.
bb() {
    if command -v "$1" >/dev/null 2>&1; then
        "$@"
    else
        busybox "$@"
    fi
}

# setting FILE KEY: the value of the first KEY=VALUE line; 1 when there is none. The file is read
# as text and never run.
setting() {
    [ -r "$1" ] || return 1
    while IFS= read -r setting_line || [ -n "$setting_line" ]; do
        case $setting_line in
        "$2="*)
            setting_line=${setting_line#*=}
            setting_line=${setting_line#\"}
            printf '%s\n' "${setting_line%\"}"
            return 0
            ;;
        esac
    done <"$1"
    return 1
}

# replace_file FILE MODE: the text on standard input becomes the content of FILE; a power cut leaves
# either the old or the new one. Equal content is not written again, which spares the flash. 1 on
# failure.
replace_file() {
    # Where the root is read-only, files of /etc are links into a writable file system.
    replace_target=$(readlink -f "$1") || replace_target=$1
    # The dot keeps the newlines at the end.
    replace_text=$(cat && echo .) || return 1
    if [ -f "$replace_target" ] && [ "$(cat "$replace_target" && echo .)" = "$replace_text" ]; then
        return 0
    fi
    replace_tmp=$(dirname "$replace_target")/.${replace_target##*/}.$$
    if (umask 077 && printf %s "${replace_text%.}" >"$replace_tmp") 2>/dev/null &&
        chmod "$2" "$replace_tmp" && { sync "$replace_tmp" 2>/dev/null || sync; } &&
        mv -f "$replace_tmp" "$replace_target" 2>/dev/null; then
        sync "$(dirname "$replace_target")" 2>/dev/null || sync
        return 0
    fi
    rm -f "$replace_tmp" 2>/dev/null
    return 1
}

# pid_of FILE NAME: the pid in FILE if that process is alive and its command line names NAME: a
# pid file outlives its process, and the number may belong to somebody else by now.
pid_of() {
    [ -r "$1" ] || return 1
    pid_value=
    read -r pid_value <"$1" || [ -n "$pid_value" ] || return 1
    case $pid_value in '' | *[!0-9]* | ????????*) return 1 ;; esac
    [ "$pid_value" -gt 1 ] || return 1
    tr '\0' ' ' <"/proc/$pid_value/cmdline" 2>/dev/null | grep -q "$2" || return 1
    printf '%s\n' "$pid_value"
}

# stop_by_pidfile FILE NAME: asks, waits 3 s at most, then forces. Succeeds when nothing ran.
stop_by_pidfile() {
    if stop_pid=$(pid_of "$1" "$2"); then
        kill "$stop_pid" 2>/dev/null
        stop_left=30
        while [ "$stop_left" -gt 0 ] && kill -0 "$stop_pid" 2>/dev/null; do
            bb sleep 0.1
            stop_left=$((stop_left - 1))
        done
        if kill -9 "$stop_pid" 2>/dev/null; then
            say "$2 ($stop_pid) did not end by itself, killed"
        fi
    fi
    rm -f "$1"
}

iface_exists() {
    bb ip link show dev "$1" >/dev/null 2>&1
}

# is_ipv4 TEXT: four decimal numbers of 0 to 255 without leading zeros, which some tools read as octal.
is_ipv4() {
    case $1 in
    *[!0-9.]* | *..* | .* | *.) return 1 ;;
    esac
    ipv4_rest=$1.
    ipv4_count=0
    while [ -n "$ipv4_rest" ]; do
        ipv4_byte=${ipv4_rest%%.*}
        ipv4_rest=${ipv4_rest#*.}
        ipv4_count=$((ipv4_count + 1))
        case $ipv4_byte in '' | 0?* | ????*) return 1 ;; esac
        [ "$ipv4_byte" -le 255 ] || return 1
    done
    [ "$ipv4_count" -eq 4 ]
}

# ipv4_number ADDR: the address as a number.
ipv4_number() {
    ipv4_rest=$1.
    ipv4_value=0
    while [ -n "$ipv4_rest" ]; do
        ipv4_value=$((ipv4_value * 256 + ${ipv4_rest%%.*}))
        ipv4_rest=${ipv4_rest#*.}
    done
    printf '%s\n' "$ipv4_value"
}

# netmask_prefix MASK: the prefix length of a mask whose ones are contiguous; 1 for any other text.
netmask_prefix() {
    is_ipv4 "$1" || return 1
    mask_number=$(ipv4_number "$1")
    mask_prefix=0
    while [ "$mask_prefix" -le 32 ]; do
        if [ "$mask_number" -eq $((0xffffffff - ((1 << (32 - mask_prefix)) - 1))) ]; then
            printf '%s\n' "$mask_prefix"
            return 0
        fi
        mask_prefix=$((mask_prefix + 1))
    done
    return 1
}

# write_resolv_conf SERVER...: one line each, with one blank: netwarden splits it there. Nothing
# else is written, search domains neither: nobody on the robot looks up short names.
write_resolv_conf() {
    resolv_text=
    for resolv_server in "$@"; do
        is_ipv4 "$resolv_server" || continue
        resolv_text="${resolv_text}nameserver $resolv_server
"
    done
    printf '%s' "$resolv_text" | replace_file /etc/resolv.conf 644 && return 0
    # A file that is mounted by itself cannot be renamed over.
    { printf '%s' "$resolv_text" >/etc/resolv.conf; } 2>/dev/null && return 0
    say "cannot write /etc/resolv.conf"
    return 1
}
