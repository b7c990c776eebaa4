#!/bin/sh
# Runs one test program in its own network and mount namespaces: loopback up,
# fresh tmpfs on /var/log, /tmp and /run, so tests may bind the fixed ports and
# write the fixed paths in parallel without touching the host.
# When namespaces can't be made the program still runs, told why through
# IBP_TEST_NO_ISOLATION; tests that need isolation skip with that reason.
masked="/var/log /tmp /run /var/run"
if [ "${IBP_TEST_IN_NS:-}" = 1 ]; then
    ip link set lo up || exit 97
    for d in $masked; do
        [ -L "$d" ] && continue
        mkdir -p "$d" && mount -t tmpfs -o mode=1777 ibp-test "$d" || exit 97
    done
    export IBP_TEST_ISOLATED=1
    exec "$@"
fi
why=""
for d in $masked; do
    case "$PWD/ $*" in *"$d/"*) why="the build tree lies under $d, which the test namespace replaces" ;; esac
done
if [ -z "$why" ]; then
    if why=$(unshare --net --mount --propagation private true 2>&1); then
        IBP_TEST_IN_NS=1 exec unshare --net --mount --propagation private "$0" "$@"
    fi
    why="unshare --net --mount failed: ${why:-unknown reason}"
fi
IBP_TEST_NO_ISOLATION="$why" exec "$@"
