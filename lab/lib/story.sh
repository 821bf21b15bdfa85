# How a scenario is told: its steps and ends, waiting for what must come, helpers that run beside it.

# step TEXT: says what happens now, on the host's terminal too.
step() {
    echo "[$(uptime_s)] $*"
    echo "P $LAB_SCENARIO: $*" >&3
}

# fail TEXT: ends the scenario as failed.
fail() {
    trap - ERR
    local frame=0
    while [[ ${BASH_SOURCE[frame]-} && ${BASH_SOURCE[frame]} != "${scenario-}" ]]; do frame=$((frame + 1)); done
    echo "FAILED at line ${BASH_LINENO[frame - 1]}: $*" >&2
    exit 1
}

# skip REASON: ends the scenario as not applicable here.
skip() {
    echo "$*" >"$LAB_RESULTS/skipped"
    exit 77
}

# options NAMES ARGUMENT...: for a word with options: each ARGUMENT is NAME=VALUE, which sets that variable of its caller.
options() {
    local allowed=$1 argument; shift
    for argument; do
        [[ $argument == *=* && " $allowed " == *" ${argument%%=*} "* ]] ||
            fail "${FUNCNAME[1]} has no option '$argument', only: $allowed"
        printf -v "${argument%%=*}" %s "${argument#*=}"
    done
}

uptime_s() { cut -d' ' -f1 /proc/uptime; }

# since TIME: seconds since it was TIME by uptime_s.
since() { awk -v began="$1" '{ printf "%.1f\n", $1 - began }' /proc/uptime; }

# alive: the daemon, if it was started, has not ended.
alive() { [[ ! -e $LAB/daemon.exit || -e $LAB/stopping ]] || fail "netwarden ended with status $(<$LAB/daemon.exit)"; }

# wait_until SECONDS COMMAND...: waits until COMMAND succeeds; returns 1 when it did not in time.
wait_until() {
    local end=$((SECONDS + $1)); shift
    until "$@" >/dev/null 2>&1; do
        alive
        ((SECONDS < end)) || return 1
        sleep 0.2
    done
}

# comes SECONDS N FILE PATTERN: whether a line of FILE behind its first N matches within that time. Follows the file instead of
# looking again and again: a wait of hours costs the machine nothing.
comes() {
    timeout "$1" bash -c 'tail -n "+$(($1 + 1))" -f "$2" | grep -qE -m1 -- "$3"' - "$2" "$3" "$4" || { alive; return 1; }
}

# expect TEXT SECONDS COMMAND...: fails with TEXT when COMMAND does not succeed in time.
expect() {
    local text=$1 seconds=$2; shift 2
    wait_until "$seconds" "$@" || fail "$text: not within $seconds s"
}

# refute TEXT COMMAND...: fails with TEXT when COMMAND succeeds. (A bare `! COMMAND` would never fail.)
refute() {
    local text=$1; shift
    if "$@" >/dev/null 2>&1; then fail "$text"; fi
}

# background NAME COMMAND...: a helper of the world. What it writes goes to results/NAME.log, which begins with it:
# what one of that name wrote before is kept in NAME.before.log.
background() {
    local name=$1 log=$LAB_RESULTS/$1.log; shift
    [[ ! -e $log ]] || cat "$log" >>"${log%.log}.before.log"
    "$@" >"$log" 2>&1 3>&- &
    echo $! >"$LAB/$name.pid"
    disown
}

# expect_from NAME PATTERN SECONDS: a line that the helper of that name writes.
expect_from() { comes "$3" 0 "$LAB_RESULTS/$1.log" "$2" || fail "/$2/ from $1: not within $3 s"; }

# end NAME [SIGNAL]: ends it and waits until it is gone.
end() {
    local pid
    pid=$(<"$LAB/$1.pid")
    rm "$LAB/$1.pid"
    kill "${2:--TERM}" "$pid"
    expect "the end of $1" 10 gone "$pid"
}
gone() { ! kill -0 "$1"; }

# broken PROGRAM [SCRIPT]: PROGRAM, a path, is this from now on, or missing. repaired PROGRAM: as it was.
broken() {
    [[ -e $1.good ]] || mv "$1" "$1.good"
    if [[ ! ${2-} ]]; then rm -f "$1"; return; fi
    install -m 755 <(printf '#!/bin/sh\n%s\n' "$2") "$1.new"
    mv "$1.new" "$1"
}
repaired() { mv "$1.good" "$1"; }

# figure NAME VALUE: a measurement: a comment of the report and a line of results/figures.
figure() {
    printf '%-44s %s\n' "$1" "$2" >>"$LAB_RESULTS/figures"
    printf 'T # %-44s %s\n' "$1" "$2" >&3
}
