#!/usr/bin/env bash
# arm_system.sh BUILD_ROOT DIR: runs the tests of the armhf build DIR on an
# ARM kernel under qemu-system-arm (-M virt -cpu cortex-a15), with the armhf
# packages of DIR/packages installed in the guest's root, as a user's target
# has them. Writes DIR/guest/status ("name Passed|Failed|Timeout" per test)
# for scripts/check.sh to count, and the GoogleTest files in DIR/gtest.
#
# The guest is made of Debian's packages only, fetched with apt-get download
# into BUILD_ROOT/arm-guest (kept between runs): the armmp-lpae kernel (its
# virtio and 9p modules), busybox-static, the C and C++ runtimes, Mini-XML,
# util-linux's mount and unshare for tests/harness/isolate.sh, zip and unzip.
# The host's source tree and BUILD_ROOT (one share when one holds the other)
# are shared over 9p at their own paths.
#
# Environment: IBP_GUEST_TIMEOUT (seconds, default 900): qemu is killed then.
set -uo pipefail
root=$1 dir=$2
src=$(cd "$(dirname "$0")/.." && pwd)
cache=$root/arm-guest
limit=${IBP_GUEST_TIMEOUT:-900}
run=$dir/guest
log=$dir.guest.log
mkdir -p "$cache/debs" || exit 1

fail() { echo "arm_system: $*" >&2; exit 1; }

# ---------------------------------------------------------------- Debian packages
packages=(busybox-static libc6 libgcc-s1 libstdc++6 libmxml1 mount libmount1 libblkid1 libselinux1
          libpcre2-8-0 util-linux zip unzip libbz2-1.0)
modules=(virtio_mmio 9pnet 9pnet_virtio netfs fscache 9p)
kernel=$(ls "$cache"/debs/linux-image-*-armmp-lpae_*_armhf.deb 2>/dev/null | tail -n 1)
if [ -z "$kernel" ]; then
    # The metapackage names the kernel of the day.
    kpkg=$(apt-cache depends linux-image-armmp-lpae:armhf 2>/dev/null |
           sed -n 's/^ *Depends: \(linux-image-[^ :]*-armmp-lpae\).*/\1/p' | head -n 1)
    [ -n "$kpkg" ] || fail "apt-cache knows no linux-image-armmp-lpae:armhf (is armhf added and apt-get update run?)"
    packages+=("$kpkg")
fi
want=()
for p in "${packages[@]}"; do
    ls "$cache/debs/${p}_"*_armhf.deb >/dev/null 2>&1 || want+=("$p:armhf")
done
if [ ${#want[@]} -gt 0 ]; then
    echo "== armhf: fetching ${want[*]}"
    (cd "$cache/debs" && apt-get -o APT::Sandbox::User=root download "${want[@]}") >"$cache/download.log" 2>&1 ||
        { cat "$cache/download.log"; fail "apt-get download failed"; }
fi
kernel=$(ls "$cache"/debs/linux-image-*-armmp-lpae_*_armhf.deb | tail -n 1)

# ---------------------------------------------------------------- the guest's base image
# Rebuilt only when the set of packages changes.
stamp=$(ls "$cache/debs" | sort | md5sum | cut -d' ' -f1)
if [ "$(cat "$cache/base.stamp" 2>/dev/null)" != "$stamp" ] || [ ! -s "$cache/base.cpio.gz" ]; then
    echo "== armhf: making the guest image"
    rm -rf "$cache/base" "$cache/kernel"
    mkdir -p "$cache/base/lib/modules" "$cache/kernel"
    for deb in "$cache"/debs/*.deb; do
        case $deb in "$kernel") continue ;; esac
        dpkg -x "$deb" "$cache/base" || fail "cannot unpack $deb"
    done
    dpkg -x "$kernel" "$cache/kernel" || fail "cannot unpack $kernel"
    cp "$cache"/kernel/boot/vmlinuz-* "$cache/vmlinuz"
    for m in "${modules[@]}"; do
        ko=$(find "$cache/kernel/lib/modules" -name "$m.ko" | head -n 1)
        [ -n "$ko" ] || fail "the kernel package has no module $m"
        cp "$ko" "$cache/base/lib/modules/"
    done
    rm -rf "$cache/kernel" "$cache"/base/usr/share/{doc,man,info,locale,lintian,bug,bash-completion} \
        "$cache"/base/usr/lib/arm-linux-gnueabihf/gconv
    (cd "$cache/base" && find . | cpio -o -H newc --quiet | gzip -1) >"$cache/base.cpio.gz" || fail "cpio failed"
    echo "$stamp" >"$cache/base.stamp"
fi

# ---------------------------------------------------------------- this run
rm -rf "$run"
mkdir -p "$run/root/etc" "$run/list" "$run/results" "$dir/gtest" || exit 1
for deb in "$dir"/packages/*_armhf.deb; do
    [ -f "$deb" ] || fail "no armhf packages in $dir/packages"
    dpkg -x "$deb" "$run/root" || fail "cannot unpack $deb"
done
cp "$src/tests/system/guest_init.sh" "$run/root/init"

# The shares: one tree when one lies inside the other (build/ in the
# checkout), since isolate.sh binds a tree under /tmp back into its fresh
# tmpfs without the mounts inside it; otherwise the source read-only and the
# build root beside it.
for p in "$src" "$root"; do
    case $p in *[[:space:],]*) fail "$p: a path with a blank or a comma cannot be shared into the guest" ;; esac
done
case $root/ in
    "$src"/*) shared=("$src") ;;
    *) case $src/ in "$root"/*) shared=("$root") ;; *) shared=("$src" "$root") ;; esac ;;
esac
qemu_shares=() shares=""
for i in "${!shared[@]}"; do
    ro=""
    [ ${#shared[@]} -eq 2 ] && [ "$i" -eq 0 ] && ro=",readonly=on"
    qemu_shares+=(-fsdev "local,id=share$i,path=${shared[$i]},security_model=none$ro"
                  -device "virtio-9p-device,fsdev=share$i,mount_tag=share$i")
    shares="$shares share$i=${shared[$i]}"
done
cat >"$run/root/etc/ibp-guest.conf" <<CONF
IBP_GUEST_MODULES="${modules[*]}"
IBP_GUEST_SHARES="${shares# }"
IBP_GUEST_SRC="$src"
IBP_GUEST_LIST="$run/list"
IBP_GUEST_RESULTS="$run/results"
CONF

# One script per CTest entry, as ctest would run it; the checks that read the
# build with the host's tools (label "host") stay on the host.
n=0
while IFS=$'\t' read -r name timeout wd cmd; do
    n=$((n + 1))
    {
        echo "# timeout ${timeout%.*}"
        echo "cd $wd || exit 1"
        echo "export GTEST_OUTPUT=xml:$dir/gtest/"
        echo "exec env $cmd"
    } >"$run/list/$(printf '%03d' $n)_$name.sh"
done < <(cd "$dir" && ctest --show-only=json-v1 | jq -r '
    .tests[] | select(([.properties[]? | select(.name == "LABELS") | .value[]] | index("host")) | not)
    | [.name,
       ((.properties[]? | select(.name == "TIMEOUT") | .value) // 1500 | tostring),
       ((.properties[]? | select(.name == "WORKING_DIRECTORY") | .value) // "'"$dir"'" | @sh),
       ((([.properties[]? | select(.name == "ENVIRONMENT") | .value[]]) + .command) | map(@sh) | join(" "))]
    | @tsv')
[ $n -gt 0 ] || fail "ctest lists no test in $dir"
# The two-process demo from the installed ibp-tools.
n=$((n + 1))
{
    echo "# timeout 120"
    echo "exec $src/tests/harness/isolate.sh sh $src/tests/system/installed_tools.sh $src/tests/system/data/installed_tools.txt"
} >"$run/list/$(printf '%03d' $n)_installed_tools.sh"

(cd "$run/root" && find . | cpio -o -H newc --quiet | gzip -1) >"$run/run.cpio.gz" || fail "cpio failed"
cat "$cache/base.cpio.gz" "$run/run.cpio.gz" >"$run/initrd.gz"

# ---------------------------------------------------------------- boot
echo "== armhf: $n tests on $(basename "$kernel" | cut -d_ -f1) under qemu-system-arm"
timeout --signal=KILL "$limit" qemu-system-arm -M virt -cpu cortex-a15 -smp 2 -m 1024 -accel tcg,thread=multi \
    -display none -monitor none -nic none -serial "file:$log" -no-reboot \
    -kernel "$cache/vmlinuz" -initrd "$run/initrd.gz" -append "console=ttyAMA0 panic=-1 quiet" \
    "${qemu_shares[@]}" \
    </dev/null
rc=$?
[ $rc -eq 137 ] && echo "== armhf: the guest was stopped after $limit s"
[ $rc -eq 0 ] || [ $rc -eq 137 ] || echo "== armhf: qemu-system-arm exited with status $rc"
grep -q '^ibp-guest: done' "$log" || { tail -n 30 "$log"; echo "== armhf: the guest did not finish (see $log)"; }
# A test whose status is missing did not run to its end.
for t in "$run"/list/*.sh; do
    b=$(basename "$t" .sh)
    cat "$run/results/$b.status" 2>/dev/null || echo "${b#*_} NotRun"
done >"$run/status"
while read -r name st; do
    [ "$st" = Passed ] && continue
    echo "== armhf: $name $st in the guest:"
    tail -n 30 "$(ls "$run"/results/*_"$name".log 2>/dev/null | head -n 1)" 2>/dev/null
done <"$run/status"
exit 0
