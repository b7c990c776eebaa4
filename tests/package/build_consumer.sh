#!/bin/sh
# build_consumer.sh WAY PREFIX WORK VERSION [CFLAGS...]: builds the consumer
# program against the library installed under PREFIX, by pkg-config or by
# cmake (find_package: ibp::ibp, or ibp::ibp_static for cmake-static), in
# WORK, runs it and compares what it prints.
way=$1 prefix=$2 work=$3 version=$4; shift 4
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$work" || exit 1
pcdir=$(dirname "$(find "$prefix" -name ibp.pc | head -n 1)")
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir ibp) || exit 1
case $way in
    pkg-config)
        # The prefix must be the one the files are under, not the one of the build.
        got=$(cd "$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=prefix ibp)" && pwd -P)
        [ "$got" = "$(cd "$prefix" && pwd -P)" ] || { echo "ibp.pc names the prefix $got, not $prefix"; exit 1; }
        # shellcheck disable=SC2046
        "${CC:-cc}" -std=c11 -Wall -Wextra -Werror "$@" -o "$work/consumer" "$here/consumer.c" \
            $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs ibp) || exit 1 ;;
    cmake | cmake-static)
        static=OFF; [ "$way" = cmake-static ] && static=ON
        cmake -S "$here/cmake_consumer" -B "$work" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$*" \
            -DIBP_CONSUMER_STATIC=$static \
            >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 1; }
        cmake --build "$work" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; } ;;
    *) echo "unknown way $way"; exit 2 ;;
esac
LD_LIBRARY_PATH=$libdir "$work/consumer" >"$work/out" || { echo "the consumer failed"; exit 1; }
sed "s/@VERSION@/$version/" "$here/data/consumer.txt" | diff -u - "$work/out" || exit 1
echo "consumer built by $way against $prefix"
