#!/usr/bin/env bash
# package.sh BUILD_ROOT: release builds for x86-64 and armhf installed under
# /usr, Debian packages of each made by CPack (cmake/packaging.cmake), copied
# into BUILD_ROOT/packages, checked by tests/package/check_packages.sh and by
# lintian (an error or a warning fails). The objects in the packages are stripped; their debug
# information is kept aside in BUILD_ROOT/packages/debug/ARCH/usr/lib/debug/
# .build-id/, where gdb finds it by build ID once copied to a target's /.
# One line per step; a step that fails shows its log.
set -uo pipefail
root=${1:-build}
jobs=${JOBS:-2}
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root/packages"
root=$(cd "$root" && pwd)
rm -rf "$root"/packages/*.deb "$root/packages/debug"

step() {  # step LOG TEXT COMMAND...
    local log=$1 text=$2; shift 2
    echo "== package: $text"
    if ! "$@" >"$log" 2>&1; then
        tail -n 40 "$log"
        echo "== package: FAILED: $text (see $log)"
        exit 1
    fi
}

# keep_debug BUILD_DIR DEST: the debug sections of the library and the
# programs, one file per build ID, as Debian's debug packages lay them out.
keep_debug() {
    local dir=$1 dest=$2 objcopy readelf elf id
    objcopy=$(sed -n 's/^CMAKE_OBJCOPY:FILEPATH=//p' "$dir/CMakeCache.txt")
    readelf=$(sed -n 's/^CMAKE_READELF:FILEPATH=//p' "$dir/CMakeCache.txt")
    for elf in "$dir"/libibp.so.*.*.* "$dir"/ibp-*; do
        [ -f "$elf" ] || continue
        "$readelf" -h "$elf" >/dev/null 2>&1 || continue
        id=$("$readelf" -n "$elf" | sed -n 's/^ *Build ID: *//p')
        [ -n "$id" ] || { echo "$elf has no build ID"; return 1; }
        mkdir -p "$dest/usr/lib/debug/.build-id/${id:0:2}" || return 1
        "$objcopy" --only-keep-debug --compress-debug-sections "$elf" \
            "$dest/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug" || return 1
        echo "$elf: .build-id/${id:0:2}/${id:2}.debug"
    done
}

for arch in amd64 armhf; do
    dir=$root/package-$arch
    args=(-DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF -DIBP_BUILD_APPS=ON -DCMAKE_INSTALL_PREFIX=/usr)
    if [ $arch = armhf ]; then
        # GNUInstallDirs picks the multiarch folder only for native builds.
        args+=(-DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake" -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf)
    fi
    step "$dir.configure.log" "$arch: configure" cmake -S "$src" -B "$dir" "${args[@]}"
    step "$dir.build.log" "$arch: build" cmake --build "$dir" -j "$jobs"
    step "$dir.debug.log" "$arch: debug information aside" keep_debug "$dir" "$root/packages/debug/$arch"
    step "$dir.cpack.log" "$arch: cpack" bash -c "cd '$dir' && rm -rf packages && cpack"
    cp "$dir"/packages/*.deb "$root/packages/"
done
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$root/package-amd64/CMakeCache.txt")
ls -1 "$root/packages"/*.deb | sed 's|.*/|   |'
echo "== package: check"
sh "$src/tests/package/check_packages.sh" "$root/packages" "$version" || exit 1
echo "== package: lintian"
if ! lintian --fail-on error,warning --info "$root"/packages/*.deb >"$root/packages/lintian.log" 2>&1; then
    cat "$root/packages/lintian.log"
    echo "== package: FAILED: lintian (see $root/packages/lintian.log)"
    exit 1
fi
grep -E '^[EW]: ' "$root/packages/lintian.log" | sed 's/^/   /'
echo "== package: lintian: no error, no warning on the six packages"
