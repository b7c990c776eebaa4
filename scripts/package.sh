#!/usr/bin/env bash
# package.sh BUILD_ROOT: release builds for x86-64 and armhf installed under
# /usr, Debian packages of each made by CPack (cmake/packaging.cmake), copied
# into BUILD_ROOT/packages and checked by tests/package/check_packages.sh.
# One line per step; a step that fails shows its log.
set -uo pipefail
root=${1:-build}
jobs=${JOBS:-2}
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root/packages"
root=$(cd "$root" && pwd)
rm -f "$root"/packages/*.deb

step() {  # step LOG TEXT COMMAND...
    local log=$1 text=$2; shift 2
    echo "== package: $text"
    if ! "$@" >"$log" 2>&1; then
        tail -n 40 "$log"
        echo "== package: FAILED: $text (see $log)"
        exit 1
    fi
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
    step "$dir.cpack.log" "$arch: cpack" bash -c "cd '$dir' && rm -rf packages && cpack"
    cp "$dir"/packages/*.deb "$root/packages/"
done
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$root/package-amd64/CMakeCache.txt")
ls -1 "$root/packages"/*.deb | sed 's|.*/|   |'
echo "== package: check"
sh "$src/tests/package/check_packages.sh" "$root/packages" "$version"
