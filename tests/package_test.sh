#!/bin/bash
# What the Debian packages do to a machine, and that nothing of them is left behind.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<'USAGE'
usage: tests/package_test.sh SUITE

In a bare root of the Debian release SUITE: installs an older edition of the packages in build/packages/SUITE, upgrades
it, runs broker, daemon, client and a program that is built against libtarn-dev, removes and purges everything, and
compares the root with what it was. Makes the root with mmdebstrap and installs what the packages depend on: some
minutes. Needs root, or sudo.
TAP on standard output; exit 0 when all pass.
USAGE
}
case ${1-} in
-h | --help) usage; exit 0 ;;
esac
suite=${1-}
[[ $# == 1 && -d build/packages/$suite ]] || { usage >&2; exit 64; }
as_root=()
((EUID == 0)) || as_root=(sudo)
arch=$(dpkg --print-architecture)
packages=(build/packages/"$suite"/{netwarden,libtarn-dev}_*_"$arch".deb build/packages/"$suite"/netwarden-board_*_all.deb)
[[ -f ${packages[0]} ]] || { echo "package_test: no packages for $arch in build/packages/$suite (scripts/package)" >&2; exit 1; }

mkdir -p build/suite
root=$(mktemp -d "$PWD/build/suite/package_test.XXXXXX")
trap '"${as_root[@]}" rm -rf --one-file-system "$root"' EXIT
mapfile -t mirrors < <(lab/image/sources "$suite")
"${as_root[@]}" mmdebstrap --quiet --variant=minbase --aptopt='Acquire::Retries "5"' "$suite" "$root/root" "${mirrors[@]}"
"${as_root[@]}" mkdir "$root/root/packages"
"${as_root[@]}" cp "${packages[@]}" "$root/root/packages/"
"${as_root[@]}" cp tests/package/in_root "$root/root/packages/"
"${as_root[@]}" cp --remove-destination /etc/resolv.conf "$root/root/etc/"
# No service of the root is started on this machine.
"${as_root[@]}" install -m 755 /dev/stdin "$root/root/usr/sbin/policy-rc.d" <<<$'#!/bin/sh\nexit 101'
# shellcheck disable=SC2016 # for the shell inside
"${as_root[@]}" unshare --mount --pid --fork --kill-child sh -euc '
    cd "$1"
    mount --bind . .
    cd "$1"
    mount -t proc proc proc
    mount --rbind /dev dev
    mount -t sysfs sysfs sys
    mount -t tmpfs tmpfs run
    pivot_root . mnt
    umount -l /mnt
    exec env -i LANG=C.UTF-8 HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        DEBIAN_FRONTEND=noninteractive bash /packages/in_root
' package_test "$root/root"
