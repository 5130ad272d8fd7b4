#!/bin/bash
# debian_install.sh BUILD_DIR
#
# The Debian packages as a device gets them: cpack makes them from the build
# tree (their man pages gzip-compressed); they are installed with apt-get into
# a clean Debian 12 root made by debootstrap (kept in BUILD_DIR/debian-bookworm
# and copied for each run); then, inside the test sandbox, `nxahost --help` runs
# from that root, and a module runs there with the packaged broker
# configuration until a TCP client outside the root has read its output. Needs
# root and Debian's mirror.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$(cd "${1:?usage: debian_install.sh BUILD_DIR}" && pwd)

if [ "${NXA_SANDBOX:-}" = 1 ]; then
    # Second half, in the sandbox: the root's own broker and host, a client outside.
    root=$2
    mount -t proc proc "$root/proc"
    mount --rbind /dev "$root/dev"
    chroot "$root" /usr/bin/nxahost --help | grep -q '^usage: nxahost'
    mkdir -p "$root/tmp/ticker"
    printf 'name\t=\tticker\nversion\t=\t1.0\nminFWVersion\t=\t0.0\narchitecture\t=\tnoarch\n' >"$root/tmp/ticker/Manifest"
    printf '#!/bin/sh\ni=0; while :; do i=$((i+1)); echo "packaged tick $i"; sleep 0.1; done\n' >"$root/tmp/ticker/ticker"
    chmod 755 "$root/tmp/ticker/ticker"
    chroot "$root" /usr/bin/nxapack /var/opt/velmora/nxa.zip /tmp/ticker
    chroot "$root" sh -c 'printf "user root\n" > /tmp/root.conf; cat /usr/share/nxa/mosquitto.conf >> /tmp/root.conf;
                          mosquitto -c /tmp/root.conf >/tmp/broker.log 2>&1 &'
    for _ in $(seq 500); do nc -z 127.0.0.1 20010 && break; sleep 0.01; done
    chroot "$root" /usr/bin/nxahost ticker >"$root/tmp/host.log" 2>&1 &
    host=$!
    got=""
    for _ in $(seq 100); do
        got=$(timeout 1 nc 127.0.0.1 20100 </dev/null 2>/dev/null || true)
        case "$got" in *"packaged tick"*) break ;; esac
        sleep 0.1
    done
    kill -TERM "$host"
    wait "$host" || { echo "nxahost ended badly:"; cat "$root/tmp/host.log"; exit 1; }
    case "$got" in *"packaged tick"*) ;; *) echo "no output from the packaged module:"; cat "$root/tmp/host.log"; exit 1 ;; esac
    echo "packaged module served: $(printf '%s\n' "$got" | grep -m1 'packaged tick')"
    exit 0
fi

work=$(mktemp -d /tmp/nxa-debian.XXXXXX)
trap 'umount -R "$work/root/proc" "$work/root/dev" 2>/dev/null || true; rm -rf "$work"' EXIT

echo "== packages"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" >/dev/null
ls "$work/debs"/*.deb

echo "== man pages: compressed as Debian ships them, the same text"
tools_deb=$(ls "$work/debs"/nxahost_*.deb)
if dpkg-deb -c "$tools_deb" | grep -E '/share/man/man[1-9]/[^/]+\.[1-9]$'; then
    echo "uncompressed man pages in $tools_deb"
    exit 1
fi
for page in man8/nxahost.8 man1/nxapack.1 man1/nxabuild.1; do
    dpkg-deb --fsys-tarfile "$tools_deb" | tar -xO "./usr/share/man/$page.gz" | gzip -dc |
        cmp - "$src/share/man/${page#*/}" || { echo "$page.gz is not share/man/${page#*/}"; exit 1; }
done

pristine=$build/debian-bookworm
if [ ! -x "$pristine/usr/bin/apt-get" ]; then
    echo "== a clean Debian 12 root (debootstrap)"
    rm -rf "$pristine.new"
    debootstrap --variant=minbase bookworm "$pristine.new" http://deb.debian.org/debian >"$work/debootstrap.log" 2>&1 ||
        { tail -20 "$work/debootstrap.log"; exit 1; }
    mv "$pristine.new" "$pristine"
fi
cp -a "$pristine" "$work/root"
cp /etc/resolv.conf "$work/root/etc/resolv.conf"

echo "== install them with apt-get"
mkdir -p "$work/root/debs" && cp "$work/debs"/*.deb "$work/root/debs/"
chroot "$work/root" sh -c 'apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
    --no-install-recommends /debs/*.deb netcat-openbsd pkg-config' >"$work/apt.log" 2>&1 || { tail -30 "$work/apt.log"; exit 1; }
chroot "$work/root" dpkg -s libnxaclient0 libnxaclient-dev nxahost | grep -c '^Status: install ok installed' | grep -qx 3
test -d "$work/root/var/opt/velmora/nxa"
test -d "$work/root/etc/nxahost/trusted-keys.d"
test -f "$work/root/usr/share/man/man8/nxahost.8.gz"
chroot "$work/root" pkg-config --modversion nxaclient

echo "== run from the root"
"$src/tests/sandbox/nxa-sandbox" -- "$0" "$build" "$work/root"
