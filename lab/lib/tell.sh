# A story told on the host's terminal as it happens (lab/demo/): each line with the seconds since the telling began.

BLUE=$'\e[34m' GREEN=$'\e[32m' DIM=$'\e[2m' PLAIN=$'\e[0m'
# What the numbers of "wifi" are called (docs/messages.md).
STATE_WORDS=([0]='off' 'connected' 'no network' 'wrong password' 'no address' 'network down' 'rejected' 'told by another process'
    'connecting' 'bad settings' 'not applied' 'stopped')

tell() { printf 'P %6.1f  %s\n' "$(since "$told_from")" "$*" >&3; }
chapter() {
    echo "P " >&3
    tell "${BLUE}$*${PLAIN}"
}

# tells_live PATTERN: from now on the broker's messages, and the lines of the log that match. Passwords stay out.
tells_live() {
    told_from=$(uptime_s)
    tail -n 0 -F "$LAB_MESSAGES" 2>/dev/null | while read -r _ topic payload; do
        case $topic in
        network/events | robot/debug | local/cmd) tell "   ${GREEN}$topic${PLAIN}  $payload$(in_words "$payload")" ;;
        brisk/network/events) tell "   ${BLUE}$topic${PLAIN}  $(sed 's/"pass":"[^"]*"/"pass":"*"/' <<<"$payload")" ;;
        esac
    done &
    tail -n 0 -F "$LAB_LOG" 2>/dev/null | grep --line-buffered -E "$1" |
        while read -r _ line; do tell "   ${DIM}${line%% - <*}${PLAIN}"; done &
    mapfile -t tellers < <(jobs -p)
}
tells_no_more() { kill "${tellers[@]}"; }

# in_words MESSAGE: the state in it, as people say it.
in_words() { [[ ! $1 =~ \"wifi\":([0-9]+) ]] || echo "   ${DIM}(${STATE_WORDS[BASH_REMATCH[1]]:-unknown})${PLAIN}"; }
