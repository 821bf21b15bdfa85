#!/bin/bash
# Which version a build says it is (cmake/build_identity.cmake in a small project of its own), and where a finished
# build installs to.
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: tests/build_test.sh BUILD-DIRECTORY

Builds a project that consists of nothing but the version's header: in a repository, without one, in somebody else's.
Then installs what was built in BUILD-DIRECTORY under several prefixes.
TAP on standard output; exit 0 when all pass.
USAGE
}
case ${1-} in
-h | --help) usage; exit 0 ;;
esac
[[ $# == 1 && -f $1/cmake_install.cmake ]] || { usage >&2; exit 64; }
built=$(cd "$1" && pwd)

cd "$(dirname "${BASH_SOURCE[0]}")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/build_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
count=0 failures=0
unset SOURCE_DATE_EPOCH GIT_DIR GIT_WORK_TREE
export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_NOSYSTEM=1
export GIT_{AUTHOR,COMMITTER}_NAME=somebody GIT_{AUTHOR,COMMITTER}_EMAIL=somebody@localhost

# tree FOLDER: the sources, without git.
tree() {
    mkdir -p "$1/cmake"
    cp cmake/build_identity.cmake "$1/cmake/"
    cat >"$1/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(house VERSION 1.2 LANGUAGES NONE)
include(cmake/build_identity.cmake)
CMAKE
}
commit() { git -C "$1" add CMakeLists.txt && git -C "$1" commit -q --allow-empty -m x; }
configure() { cmake -G Ninja -S "$1" -B "$1/build" -D NETWARDEN_BUILDER='"A;B" & co.' >"$work/out"; }
build() { cmake --build "$1/build" --target netwarden_identity >"$work/out"; }
header=build/identity/build_identity.h
# says FOLDER WORD TEXT: that is what the header has for WORD.
says() { grep -qxF "#define NETWARDEN_$2 \"$3\"" "$1/$header"; }

check() {
    count=$((count + 1))
    "${@:2}" || { sed 's/^/#   /' "$work/out" && echo -n 'not ' && failures=$((failures + 1)); }
    echo "ok $count - $1"
}

own=$work/own
tree "$own"
git init -q -b "fast\"er" "$own"
commit "$own"
configure "$own"

first_build() {
    build "$own" && says "$own" VERSION 1.2 && says "$own" BRANCH 'fast\"er' &&
        says "$own" HASH "$(git -C "$own" rev-parse --short=12 HEAD)" && says "$own" BUILDER '\"A;B\" & co.'
}
check "a build tells git's branch and hash, the builder's name as it stands" first_build

nothing_changed() {
    sed -i 's/\(DATE "\).*"/\1long ago"/' "$own/$header"
    touch -d 2020-01-01 "$own/$header"
    build "$own" && says "$own" BUILD_DATE "long ago" && [[ $(stat -c %y "$own/$header") == 2020-* ]]
}
check "the next one leaves the header alone" nothing_changed

after_commit() {
    commit "$own" && build "$own" && says "$own" HASH "$(git -C "$own" rev-parse --short=12 HEAD)" &&
        ! says "$own" BUILD_DATE "long ago"
}
check "a commit is another version, built at another time, without configuring again" after_commit

told_date() { SOURCE_DATE_EPOCH=86400 build "$own" && says "$own" BUILD_DATE 1970-01-02T00:00:00Z; }
check "SOURCE_DATE_EPOCH is the date" told_date

inside=$own/build/unpacked
tree "$inside"
configure "$inside"
nameless() { build "$inside" && says "$inside" BRANCH release && says "$inside" HASH unknown; }
check "an export inside another repository is not that one's version" nameless
in_a_hook() { GIT_DIR=$own/.git nameless; }
check "not even while a command of that repository runs" in_a_hook
told() {
    cmake -S "$inside" -B "$inside/build" -D NETWARDEN_HASH=0123456789ab -D NETWARDEN_BRANCH=fleet \
        -D NETWARDEN_BUILD_MACHINE=ours >"$work/out" && build "$inside" && says "$inside" BRANCH fleet &&
        says "$inside" HASH 0123456789ab && says "$inside" BUILD_MACHINE ours
}
check "whoever builds it says what it is" told

version=$(sed -n 's/^project(netwarden VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
one_version() {
    for text in "$(sed -n 's/^## \([0-9.]*\) .*/\1/p' CHANGELOG.md | head -1)" \
        "$(sed -n '1s/.*(\(.*\)).*/\1/p' debian/changelog)" \
        "$(sed -n 's/^NETWARDEN_VERSION = //p' packaging/buildroot/package/netwarden/netwarden.mk)" \
        "$(basename packaging/yocto/meta-netwarden/recipes-connectivity/netwarden/*.bb .bb | sed 's/.*_//')"; do
        [[ $text == "$version" ]] || { echo "$text is not $version"; return 1; }
    done >"$work/out"
    local contract
    contract=$(sed -n 's/^  version: //p' docs/asyncapi.yaml)
    sed -n '/^## /{n;n;p;q}' CHANGELOG.md | grep "Message contract ${contract}[:.]" >>"$work/out"
}
check "release notes, packages and recipes have the version of the sources" one_version

# installed PREFIX SETTINGS: every file is under one of the two, and the texts name them.
installed() {
    rm -rf "$work/root"
    DESTDIR=$work/root cmake --install "$built" --prefix "$1" >"$work/out" &&
        [[ -z $(cd "$work/root" && find . -type f ! -path ".${1%/}/*" ! -path ".$2/*" | tee -a "$work/out") ]] &&
        [[ -f $work/root$2/default/netwarden && -x $work/root${1%/}/sbin/netwarden ]] &&
        grep -qF "ExecStart=${1%/}/sbin/netwarden " "$work/root${1%/}/lib/systemd/system/netwarden.service" &&
        grep -qF "EnvironmentFile=-$2/default/netwarden" "$work/root${1%/}/lib/systemd/system/netwarden.service" &&
        grep -qF "Pa $2/default/netwarden" "$work/root${1%/}/share/man/man8/netwarden.8"
}
check "a prefix of one's own holds everything" installed /opt/robot /opt/robot/etc
check "the system's settings are beside it" installed /usr /etc
check "the root itself is a prefix" installed / /etc

echo "1..$count"
((failures == 0))
