#!/usr/bin/env bash
# demo.sh BUILD_DIR: starts the sample service, shows a few answers of the
# debug tool run with -c (around a burst of records from ibp-ping), opens the
# interactive command line when standard input is a terminal, and stops the
# service when the user leaves.
set -euo pipefail
dir=${1:-build/release}
out=$(mktemp)
pid=

stop_service() {
    [ -n "$pid" ] || return 0
    kill -INT "$pid" 2>/dev/null || true
    wait "$pid" || true
    pid=
}
trap 'stop_service; rm -f "$out"' EXIT

# The programs log to /var/log as on the camera; without the right to write
# there they log to standard output instead.
log_args=()
if [ ! -w /var/log ]; then log_args=(--log-stdout); fi

"$dir/ibp-isp" "${log_args[@]}" >"$out" 2>&1 &
pid=$!
for _ in $(seq 50); do grep -q serving "$out" && break; sleep 0.1; done
if ! grep -q serving "$out"; then
    cat "$out"; echo "demo: the service did not start"; exit 1
fi
echo "== ibp-isp is running (pid $pid)"

# dt LINE: one line through the debug tool, as a script would run it.
dt() {
    echo
    echo "\$ ibp-dt -c \"$1\""
    "$dir/ibp-dt" "${log_args[@]}" -c "$1" || echo "(exit status $?)"
}
dt "isp bp proc cfg"
dt "isp bp log IMG 0"
echo
echo "== ibp-ping sends 100 synchronous records of 64 bytes to ISP_IMG"
"$dir/ibp-ping" "${log_args[@]}" || true
dt "isp img stats"
dt "isp bp pro"

if [ -t 0 ]; then
    echo
    echo "== the interactive command line: TAB completes and lists, arrows edit and recall, \"q\" leaves"
    "$dir/ibp-dt" "${log_args[@]}" || true
fi

stop_service
echo
echo "== the service's output"
cat "$out"
