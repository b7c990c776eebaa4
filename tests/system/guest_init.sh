#!/bin/busybox sh
# /init of the ARM guest that runs the armhf tests (scripts/arm_system.sh
# builds the initramfs around it). Mounts the host's source tree and build
# root over 9p at the paths they have on the host, so test programs, data and
# result files keep their absolute paths; runs the tests; powers off.
bb=/bin/busybox
$bb mkdir -p /proc /sys /dev /tmp /run /var/log /usr/bin /usr/sbin /sbin
$bb mount -t proc proc /proc
$bb mount -t sysfs sysfs /sys
$bb mount -t devtmpfs devtmpfs /dev
$bb mkdir -p /dev/pts
$bb mount -t devpts devpts /dev/pts
# Applets for what the Debian packages in the image do not bring (mount and
# unshare come from util-linux, as on the host).
$bb --install -s 2>/dev/null
# CTest names the shell by the host's path.
[ -e /usr/bin/sh ] || $bb ln -s /bin/sh /usr/bin/sh
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8
. /etc/ibp-guest.conf

finish() {
    echo "ibp-guest: $1"
    sync
    $bb poweroff -f
}

# virtio and 9p are modules in the distribution's kernel; dependencies first.
for m in $IBP_GUEST_MODULES; do
    $bb insmod "/lib/modules/$m.ko" || finish "insmod $m failed"
done
# Each share at the path it has on the host.
for share in $IBP_GUEST_SHARES; do
    tag=${share%%=*} path=${share#*=}
    $bb mkdir -p "$path"
    $bb mount -t 9p -o "trans=virtio,version=9p2000.L,msize=262144,cache=loose" "$tag" "$path" ||
        finish "cannot mount $tag on $path"
done
echo "ibp-guest: $(uname -srm), $(nproc) cores"
sh "$IBP_GUEST_SRC/tests/system/run_guest.sh" "$IBP_GUEST_LIST" "$IBP_GUEST_RESULTS"
finish "done"
