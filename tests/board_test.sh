#!/bin/bash
# Runs the board's scripts in the robot image, in namespaces of their own.
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: tests/board_test.sh [--image DIR] [SUBJECT...]

Installs board/ into a copy of the robot image (default: build/image/rootfs) and runs tests/board/
in it: argument tables, and ifup, DHCP and renewal on a virtual Ethernet pair. Busybox stands in for
shell and tools, as on a small robot; the lab runs the scripts with the full ones, and the soft AP.
SUBJECT is a file there: network, tools, page (default: all). TAP on standard output; exit 0 when all pass, 77 when this user may not make the namespaces.
USAGE
}

here=$(cd "$(dirname "$0")/.." && pwd)
image=$here/build/image/rootfs
case ${1-} in
--image) image=${2:?--image needs a folder}; shift 2 ;;
-h | --help) usage; exit 0 ;;
-*) usage >&2; exit 64 ;;
esac
(($#)) || set -- network tools page
for subject; do
    [[ -f $here/tests/board/$subject.sh ]] || { echo "board_test: no subject $subject" >&2; exit 64; }
done
[ -x "$image/usr/bin/busybox" ] || { echo "board_test: no robot image at $image: run scripts/setup" >&2; exit 1; }

# Virtual interfaces, control sockets of a group and a second network need the rights of root.
if [ "$(id -u)" -ne 0 ]; then
    ! unshare --map-root-user --map-auto true 2>/dev/null ||
        exec unshare --map-root-user --map-auto "$0" --image "$image" "$@"
    echo "1..0 # SKIP needs root, or a user with subordinate ids"
    exit 77
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/board_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
# /usr is hard links where the file system allows (it is mounted read-only); the rest is small.
root=$work/root
mkdir "$root"
cp -al "$image/usr" "$root/" 2>/dev/null || { rm -rf "${root:?}/usr" && cp -a "$image/usr" "$root/"; }
cp -a "$image"/{etc,opt} "$root/"
for link in bin sbin lib lib64; do
    [ ! -L "$image/$link" ] || cp -a "$image/$link" "$root/$link"
done
mkdir -p "$root"/{dev,proc,run,tmp,var/lib/misc,var/log,persist,root,test}
ln -s /run "$root/var/run"
: >"$root/etc/resolv.conf"
"$here/board/install.sh" "$root"

mounts=(--bind "$root" / --ro-bind "$root/usr" /usr --ro-bind "$here/tests/board" /test
    --ro-bind "$root/usr/bin/ip" /full-ip
    --tmpfs /usr/local --proc /proc --dev /dev --tmpfs /run --perms 1777 --tmpfs /tmp)
# A multi-call binary is what it is called: mounted over a tool, it is that tool.
for tool in dash ip sed grep sort tail head cat tr od cut sync mktemp timeout readlink \
    setsid awk mawk ps dmesg cmp dirname sleep date chmod mv cp rm ln id uname; do
    [ ! -f "$root/usr/bin/$tool" ] || [ -L "$root/usr/bin/$tool" ] ||
        mounts+=(--ro-bind "$root/usr/bin/busybox" "/usr/bin/$tool")
done
bwrap "${mounts[@]}" --unshare-net --unshare-pid --unshare-ipc --unshare-uts --cap-add ALL \
    --die-with-parent --chdir / --clearenv --setenv PATH /usr/sbin:/usr/bin:/sbin:/bin \
    /bin/bash /test/cases.sh "$@"
