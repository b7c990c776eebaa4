#!/usr/bin/env bash
# demo.sh BUILD_DIR: starts the sample service, pings it from a debug tool
# process, shows the service's last log records and stops it cleanly.
set -euo pipefail
dir=${1:-build/release}
out=$(mktemp)
trap 'rm -f "$out"' EXIT

# The service logs to /var/log as on the camera; without the right to write
# there it logs to standard output instead.
log_args=() ping_args=()
if [ ! -w /var/log ]; then log_args=(--log-stdout); ping_args=(--log-stdout); fi

"$dir/ibp-isp" "${log_args[@]}" >"$out" 2>&1 &
pid=$!
for _ in $(seq 50); do grep -q serving "$out" && break; sleep 0.1; done
if ! grep -q serving "$out"; then
    cat "$out"; kill "$pid" 2>/dev/null; echo "demo: the service did not start"; exit 1
fi
echo "== ibp-isp is running (pid $pid); ibp-ping sends 100 synchronous records of 64 bytes"
status=0
"$dir/ibp-ping" "${ping_args[@]}" || status=$?

kill -INT "$pid"
wait "$pid" || status=$?
echo "== the service's output"
cat "$out"
if [ ${#log_args[@]} -eq 0 ]; then
    echo "== last records of /var/log/ISP_ALG00.log"
    tail -n 12 /var/log/ISP_ALG00.log
fi
exit $status
