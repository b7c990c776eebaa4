#!/bin/sh
# check_packages.sh PACKAGE_DIR VERSION: the six Debian packages of `make
# package`. The x86-64 ones are unpacked into a scratch root, where a
# consumer is built with pkg-config and with find_package(ibp) and the tools
# run; the armhf ones are inspected: architecture, contents, ELF headers.
dir=$(cd "$1" && pwd) version=$2
here=$(cd "$(dirname "$0")" && pwd)
apps=$here/../../apps
major=${version%%.*}
scratch=$(mktemp -d -p "$dir") || exit 1
trap 'rm -rf "$scratch"' EXIT
status=0
fail() { echo "$*"; status=1; }

for arch in amd64 armhf; do
    case $arch in amd64) multiarch=x86_64-linux-gnu ;; armhf) multiarch=arm-linux-gnueabihf ;; esac
    root=$scratch/$arch
    for pkg in libibp$major libibp-dev ibp-tools; do
        deb=$dir/${pkg}_${version}_$arch.deb
        [ -f "$deb" ] || { fail "missing $deb"; continue; }
        [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$deb: architecture $(dpkg-deb -f "$deb" Architecture)"
        dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sed "s|^|$pkg |" >>"$scratch/contents-$arch"
        dpkg -x "$deb" "$root" || fail "$deb does not unpack"
    done
    # Each wanted path in its package, every program with its page, no path in two packages.
    { sed -n 's/^\([^#|]*\)|\(.*\)$/\1 \2/p' "$here/data/package_contents.txt"
      for src in "$apps"/*.cpp; do
          name=$(basename "$src" .cpp)
          printf 'ibp-tools ./usr/bin/%s\nibp-tools ./usr/share/man/man1/%s.1.gz\n' "$name" "$name"
      done
      for pkg in libibp$major libibp-dev ibp-tools; do  # Debian wants both in every package
          printf '%s ./usr/share/doc/%s/copyright\n%s ./usr/share/doc/%s/changelog.gz\n' "$pkg" "$pkg" "$pkg" "$pkg"
      done; } |
        sed "s/@MAJOR@/$major/g; s/@VERSION@/$version/g; s/@MULTIARCH@/$multiarch/g" |
        while read -r pkg path; do
            grep -qxF "$pkg $path" "$scratch/contents-$arch" || echo "$arch: $pkg does not hold $path"
        done >"$scratch/missing"
    [ -s "$scratch/missing" ] && fail "$(cat "$scratch/missing")"
    twice=$(awk '{print $2}' "$scratch/contents-$arch" | sort | uniq -d)
    [ -z "$twice" ] || fail "$arch: in two packages: $twice"
done

# x86-64: a consumer both ways against the unpacked root, and the tools run.
root=$scratch/amd64/usr
sh "$here/build_consumer.sh" pkg-config "$root" "$scratch/pc" "$version" || status=1
sh "$here/build_consumer.sh" cmake "$root" "$scratch/cm" "$version" || status=1
sh "$here/build_consumer.sh" cmake-static "$root" "$scratch/cs" "$version" || status=1
for src in "$apps"/*.cpp; do
    name=$(basename "$src" .cpp)
    got=$(LD_LIBRARY_PATH=$root/lib/x86_64-linux-gnu "$root/bin/$name" --version)
    [ "$got" = "$name $version" ] || fail "amd64 $name --version: $got"
done

# armhf: 32-bit ARM, hard float, the SONAME with the major of the package name.
lib=$scratch/armhf/usr/lib/arm-linux-gnueabihf/libibp.so.$version
for elf in "$lib" "$scratch"/armhf/usr/bin/*; do
    head=$(arm-linux-gnueabihf-readelf -h "$elf") || { fail "armhf: $elf is no ELF file"; continue; }
    echo "$head" | grep -q 'Class: *ELF32' || fail "armhf: $elf is not 32-bit"
    echo "$head" | grep -q 'Machine: *ARM' || fail "armhf: $elf is not for ARM"
    echo "$head" | grep -q 'hard-float' || fail "armhf: $elf is not hard-float"
done
arm-linux-gnueabihf-readelf -d "$lib" | grep -q "SONAME.*\[libibp\.so\.$major\]" || fail "armhf: SONAME of $lib"
# The programs load the library of libibp0, as their dependency says.
for elf in "$scratch"/armhf/usr/bin/*; do
    arm-linux-gnueabihf-readelf -d "$elf" | grep -q "NEEDED.*\[libibp\.so\.$major\]" ||
        fail "armhf: $elf does not load libibp.so.$major"
done

for arch in amd64 armhf; do
    case $arch in amd64) readelf=readelf ;; armhf) readelf=arm-linux-gnueabihf-readelf ;; esac
    # Stripped: the debug information is kept aside.
    for elf in "$scratch/$arch"/usr/lib/*/libibp.so.$version "$scratch/$arch"/usr/bin/*; do
        ! "$readelf" -S "$elf" | grep -qE '\.(debug_info|symtab) ' || fail "$arch: $elf is not stripped"
    done
    # What dpkg and the loader need of the runtime package.
    deb=$dir/libibp${major}_${version}_$arch.deb
    [ "$(dpkg-deb -I "$deb" shlibs)" = "libibp $major libibp$major (>= $version)" ] || fail "$deb: shlibs"
    dpkg-deb -I "$deb" triggers | grep -qx 'activate-noawait ldconfig' || fail "$deb: no ldconfig trigger"
    dpkg-deb -I "$deb" postinst >/dev/null 2>&1 && fail "$deb: a postinst"
    dpkg-deb -f "$dir/ibp-tools_${version}_$arch.deb" Depends | grep -q "libibp$major (= $version)" ||
        fail "$arch: ibp-tools does not depend on libibp$major"
done
# Multi-Arch: same: both architectures' packages may be installed together, so
# every path they share holds the same bytes.
for pkg in libibp$major libibp-dev; do
    for arch in amd64 armhf; do
        [ "$(dpkg-deb -f "$dir/${pkg}_${version}_$arch.deb" Multi-Arch)" = same ] || fail "$pkg $arch: not Multi-Arch: same"
    done
    awk -v p="$pkg" '$1 == p { print $2 }' "$scratch/contents-amd64" | sort >"$scratch/paths-amd64"
    awk -v p="$pkg" '$1 == p { print $2 }' "$scratch/contents-armhf" | sort >"$scratch/paths-armhf"
    for path in $(comm -12 "$scratch/paths-amd64" "$scratch/paths-armhf"); do
        cmp -s "$scratch/amd64/$path" "$scratch/armhf/$path" || fail "$pkg: $path differs between amd64 and armhf"
    done
done

[ $status -eq 0 ] && echo "six packages as expected"
exit $status
