#!/usr/bin/env bash
# Installs what the build, the tests, the armhf cross build, its run on an
# ARM kernel (qemu-system-arm, cpio; scripts/arm_system.sh fetches the guest's
# own armhf packages), make package (lintian) and make fuzz (clang with its
# libFuzzer and sanitizer runtimes) need on Debian 12.
# Does nothing when everything is there already.
set -euo pipefail

native=(g++ cmake make pkg-config libgtest-dev libbenchmark-dev libmxml-dev
        unzip zip iproute2 util-linux binutils jq valgrind doxygen mandoc dpkg-dev
        g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user
        clang libclang-rt-14-dev qemu-system-arm cpio file lintian)
armhf=(libmxml-dev:armhf libgtest-dev:armhf libstdc++6:armhf)

arch=$(dpkg --print-architecture)
# Qualify plain names with the native architecture: once the armhf twin of a
# package is installed, an unqualified query answers for both.
installed() {
    local p=$1; case $p in *:*) ;; *) p=$p:$arch ;; esac
    dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null | grep -qx installed ||
        dpkg-query -W -f='${db:Status-Status}' "${p%:*}:all" 2>/dev/null | grep -qx installed
}

missing=()
for p in "${native[@]}" "${armhf[@]}"; do installed "$p" || missing+=("$p"); done
[ ${#missing[@]} -eq 0 ] && exit 0

need_arch=0
dpkg --print-foreign-architectures | grep -qx armhf || need_arch=1

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run as root:" >&2
    [ $need_arch -eq 1 ] && echo "  dpkg --add-architecture armhf" >&2
    echo "  apt-get update && apt-get install -y ${missing[*]}" >&2
    exit 1
fi

echo "setup: installing ${missing[*]}"
[ $need_arch -eq 1 ] && dpkg --add-architecture armhf
# A mirror that is half-way through a sync fails one index now and then; the
# packages we need are still found in the others, so go on and let install decide.
apt-get -o DPkg::Lock::Timeout=600 update -qq || echo "setup: apt-get update reported errors, trying the install anyway" >&2
DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq --no-install-recommends "${missing[@]}"
