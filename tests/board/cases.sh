#!/bin/bash
# The cases of tests/board_test.sh; runs as root inside the sandbox that it makes, with the subjects as arguments.
set -u
count=0
failures=0
export state=/etc/netwarden-board/state

# check CASE...: each is a function in which no command may fail; its trace is shown when one does.
check() {
    local case result
    for case; do
        count=$((count + 1))
        (BASH_XTRACEFD=9; set -ex; "$case") >/tmp/trace 2>&1 9>&1
        result=$?
        failures=$((failures + (result != 0)))
        [ $result -eq 0 ] || { sed 's/^/#   /' /tmp/trace && echo -n 'not '; }
        echo "ok $count - ${case//_/ }"
    done
}

# until_true SECONDS COMMAND...
until_true() {
    local deadline=$((SECONDS + $1))
    until "${@:2}"; do
        [ $SECONDS -lt $deadline ] || return
        sleep 0.1
    done
}

gone() { [ ! -e "$1" ]; }

# exits CODE COMMAND...
exits() {
    local seen=0
    "${@:2}" || seen=$?
    [ $seen -eq "$1" ]
}

# stand_in NAME: the script on standard input becomes the first NAME in every script's PATH.
stand_in() { { echo '#!/bin/bash' && cat; } | install -D -m 755 /dev/stdin "/usr/local/sbin/$1"; }

for subject; do
    # shellcheck source=/dev/null
    . "/test/$subject.sh"
done

echo "1..$count"
[ "$failures" -eq 0 ]
