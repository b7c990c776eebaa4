#!/bin/sh
# check_install.sh BUILD_DIR VERSION [CFLAGS...]: installs the build with
# `cmake --install --prefix` into a scratch folder, builds a consumer there
# with pkg-config and against the archive with find_package, runs the
# installed programs as they are (no library path given), then removes the
# install with cmake/uninstall.cmake and finds nothing left, not even the
# folders the install made.
build=$1 version=$2; shift 2
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d -p "$build") || exit 1
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/pfx" >"$scratch/install.log" || { cat "$scratch/install.log"; exit 1; }
sh "$here/build_consumer.sh" pkg-config "$scratch/pfx" "$scratch/work" "$version" "$@" || exit 1
sh "$here/build_consumer.sh" cmake-static "$scratch/pfx" "$scratch/static" "$version" "$@" || exit 1
for prog in "$scratch"/pfx/bin/*; do
    [ -f "$prog" ] || continue
    got=$(env -u LD_LIBRARY_PATH "$prog" --version) || { echo "installed $(basename "$prog") does not start"; exit 1; }
    [ "$got" = "$(basename "$prog") $version" ] || { echo "installed $(basename "$prog") --version: $got"; exit 1; }
done
cmake -DMANIFEST="$build/install_manifest.txt" -P "$here/../../cmake/uninstall.cmake" >/dev/null || exit 1
left=$(find "$scratch/pfx" 2>/dev/null)
[ -z "$left" ] || { echo "left after uninstall:"; echo "$left"; exit 1; }
echo "installed, used and removed without a trace"
