#!/bin/bash
# The cases of tests/board_test.sh; runs as root inside the sandbox that it makes.
set -u

count=0
failures=0

# check NAME COMMAND...: the command must succeed.
check() {
    local name=$1 output
    shift
    count=$((count + 1))
    if output=$("$@" 2>&1); then
        echo "ok $count - $name"
        return
    fi
    failures=$((failures + 1))
    echo "not ok $count - $name"
    output=$(tail -n 60 <<<"${output:-no output}")
    echo "#   ${output//$'\n'/$'\n'#   }"
}

# until_true SECONDS COMMAND...
until_true() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        if [ $SECONDS -ge $deadline ]; then
            echo "still false: $*"
            return 1
        fi
        sleep 0.1
    done
}

equal() {
    [ "$1" = "$2" ] || {
        printf 'expected: %s\nseen:     %s\n' "$1" "$2"
        return 1
    }
}

# exits CODE COMMAND...: its output is shown when the code differs.
exits() {
    local want=$1 output
    shift
    output=$("$@" 2>&1)
    local seen=$?
    [ "$seen" -eq "$want" ] || {
        echo "exit $seen instead of $want: $*"
        echo "$output"
        return 1
    }
}

# shellcheck disable=SC2034
state=/etc/netwarden-board/state

# shellcheck source=provision.sh
. /test/provision.sh
# shellcheck source=network.sh
. /test/network.sh
# shellcheck source=tools.sh
. /test/tools.sh

echo "1..$count"
echo "# $((count - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
