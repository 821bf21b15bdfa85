#!/bin/bash
# What scripts/setup says on machines that cannot become ready, and where it looks for packages.
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: tests/setup_test.sh

Runs scripts/setup on this machine under a false name, without rights, without room. Its apt-get is a fake that only
notes that it was called. TAP on standard output; exit 0 when all pass.
USAGE
}
case ${1-} in
-h | --help) usage; exit 0 ;;
?*) usage >&2; exit 64 ;;
esac

cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/setup_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
count=0 failures=0
mkdir "$work/bin"
export PATH=$work/bin:$PATH

# fake NAME: a program of that name, from standard input.
fake() {
    { echo '#!/bin/bash'; cat; } >"$work/bin/$1"
    chmod 755 "$work/bin/$1"
}
fake apt-get <<<"echo called >>$work/apt"
fake sudo <<<'exec "$@"'
fake dpkg-query <<<'exit 1'    # nothing is installed yet

# on PRETTY-NAME ID VERSION CODENAME COMMAND...: runs it on a machine with that release.
on() {
    printf 'PRETTY_NAME="%s"\nID=%s\nVERSION_ID=%s\nVERSION_CODENAME=%s\n' "${@:1:4}" >"$work/os-release"
    machine --ro-bind "$work/os-release" "$identity" -- "${@:5}"
}
identity=$(readlink -f /etc/os-release)
machine() { bwrap --cap-add ALL --dev-bind / / "$@"; }

# check NAME COMMAND...
check() {
    count=$((count + 1))
    "${@:2}" || { sed 's/^/#   /' "$work/out" && echo -n 'not ' && failures=$((failures + 1)); }
    echo "ok $count - $1"
}

# refuses PATTERN COMMAND...: it ends with 1 and one line that matches, and nothing was installed.
refuses() {
    local result=0
    rm -f "$work/apt"
    "${@:2}" >"$work/out" 2>&1 || result=$?
    ((result == 1)) && [[ $(wc -l <"$work/out") == 1 ]] && grep -qE "^setup: $1" "$work/out" && [[ ! -e $work/apt ]]
}
# prints TEXT COMMAND...: just that, and it ends with 0.
prints() { "${@:2}" >"$work/out" 2>&1 && [[ $(<"$work/out") == "$1" ]]; }

check "another distribution is refused" \
    refuses 'needs Debian 12 or 13; this is Cat 24.04$' on "Cat 24.04" cat 24.04 purr scripts/setup
check "an older release is refused" \
    refuses 'needs Debian 12 or 13; this is Debian 11$' on "Debian 11" debian 11 bullseye scripts/setup
check "a system without a name is refused" \
    refuses 'needs Debian 12 or 13; this is another system$' machine --ro-bind /dev/null "$identity" scripts/setup
check "Debian 12 has what it takes" prints "" on Debian debian 12 bookworm scripts/preflight
check "Debian 13 has what it takes" prints "" on Debian debian 13 trixie scripts/preflight

if ((EUID == 0)); then
    confined=(setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin)
else
    confined=(bwrap --unshare-user --disable-userns --dev-bind / /)
fi
check "a container that may make no namespaces is refused" \
    refuses "this machine lets $(id -un) make no namespaces" "${confined[@]}" scripts/setup
check "folders of a full disk are counted together" \
    refuses 'needs 3 MB free in /mnt; there are [01] MB$' machine --size 1048576 --tmpfs /mnt scripts/preflight 1 /mnt 2 /mnt
check "a disk with room is taken" prints "" machine --size 4194304 --tmpfs /mnt scripts/preflight 1 /mnt 2 /mnt
fake df <<<'printf "Value\n100M\n"'
check "no room for the packages is told before the first" \
    refuses 'needs [0-9]+ MB free in .*; there are 100 MB$' scripts/setup
rm "$work/bin/df"

fake dpkg <<<'echo riscv64'
check "a processor without a machine in the lab is refused" \
    refuses 'needs a processor that the lab knows \(.*amd64.*\); this is riscv64$' scripts/setup
rm "$work/bin/dpkg"

check "robots of an older release are not built for with a newer C library" \
    refuses "this machine's compiler for mipsel .*scripts/suite bookworm " on Debian debian 13 trixie scripts/setup --target mipsel
check "a processor that left keeps its last release" prints bookworm on Debian debian 13 trixie lab/image/suite mipsel
check "the others have the machine's" prints trixie on Debian debian 13 trixie lab/image/suite armhf

check "a machine whose apt knows no Debian names no mirror" prints "" lab/image/sources trixie
fake apt-get <<'APT'
echo "Debian deb http://mirror.home/bookworm/debian/ bookworm main"
echo "Debian deb http://mirror.home/bookworm/debian/ bookworm-updates main"
echo "Other deb http://other.home/ bookworm main"
APT
check "another release comes from the machine's own mirror" prints "\
deb http://mirror.home/bookworm/debian/ trixie main
deb http://mirror.home/bookworm/debian/ trixie-updates main" on Debian debian 12 bookworm lab/image/sources trixie

echo "1..$count"
((failures == 0))
