#!/bin/sh
# Runs one test program in its own network and mount namespaces: loopback up,
# fresh tmpfs on /var/log, /tmp and /run, so tests may bind the fixed ports and
# write the fixed paths in parallel without touching the host.
#
# A tree that the program needs (its working folder, the program, the test
# data of IBP_TEST_DATA_DIR) may itself lie under one of those folders, as a
# checkout under /tmp does: its top folder below the masked one is bound back
# into the fresh tmpfs, so the program still finds it at the same path.
#
# When namespaces can't be made the program still runs, told why through
# IBP_TEST_NO_ISOLATION; tests that need isolation skip with that reason.
masked="/tmp /var/log /run /var/run"

# resolved PATH: the path with every symbolic link resolved (/var/run is
# often a link to /run), or the path itself when it does not exist.
resolved() { readlink -f "$1" 2>/dev/null || printf '%s\n' "$1"; }

# top_below DIR PATH: the first folder of PATH below DIR ("/tmp/ci" for
# /tmp/ci/ibp/build under /tmp), compared by whole leading folders, so that
# /var/tmp/x or /home/me/tmp/ibp are not taken for lying under /tmp.
top_below() {
    case "$2" in
        "$1"/*) rest=${2#"$1"/}; printf '%s/%s\n' "$1" "${rest%%/*}" ;;
        *) return 1 ;;
    esac
}

if [ "${IBP_TEST_IN_NS:-}" = 1 ]; then
    ip link set lo up || exit 97
    for d in $masked; do
        [ -L "$d" ] && continue
        # Trees to bind back, each opened before the tmpfs hides it.
        keep=""
        for p in "$PWD" "$@" ${IBP_TEST_DATA_DIR:-}; do
            case $p in /*) ;; *) continue ;; esac
            top=$(top_below "$d" "$(resolved "$p")") || continue
            [ -d "$top" ] || continue
            case " $keep " in *" $top "*) ;; *) keep="$keep $top" ;; esac
        done
        fd=3
        for top in $keep; do
            eval "exec $fd<\"\$top\"" || exit 97
            fd=$((fd + 1))
        done
        mkdir -p "$d" && mount -t tmpfs -o mode=1777 ibp-test "$d" || exit 97
        fd=3
        for top in $keep; do
            # The open descriptor still reaches the hidden folder; mount must
            # not resolve its name, which now leads into the new tmpfs.
            mkdir -p "$top" && mount --no-canonicalize --bind "/proc/self/fd/$fd" "$top" || exit 97
            eval "exec $fd<&-"
            fd=$((fd + 1))
        done
    done
    cd "$PWD" || exit 97
    export IBP_TEST_ISOLATED=1
    exec "$@"
fi
if why=$(unshare --net --mount --propagation private true 2>&1); then
    IBP_TEST_IN_NS=1 exec unshare --net --mount --propagation private "$0" "$@"
fi
IBP_TEST_NO_ISOLATION="unshare --net --mount failed: ${why:-unknown reason}" exec "$@"
