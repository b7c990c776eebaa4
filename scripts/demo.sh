#!/usr/bin/env bash
# demo.sh BUILD_DIR: starts the sample service, shows a few answers of the
# debug tool run with -c (around a burst of records from ibp-ping), opens the
# interactive command line when standard input is a terminal, and stops the
# service when the user leaves. Every step has the exit status it must end
# with; one that ends otherwise is named at the end, and the demo fails.
set -euo pipefail
dir=${1:-build/release}
out=$(mktemp)
pid=
failed=()

stop_service() {
    [ -n "$pid" ] || return 0
    kill -INT "$pid" 2>/dev/null || true
    local st=0
    wait "$pid" || st=$?
    pid=
    [ "$st" -eq 0 ] || failed+=("ibp-isp ended with exit status $st")
}
trap 'stop_service; rm -f "$out"' EXIT

# The programs log to /var/log as on the camera; without the right to write
# there the demo keeps their records beside the build.
log_args=()
if [ ! -w /var/log ]; then log_args=(--log-dir "$dir"); fi

# step STATUS WHAT COMMAND...: runs a step that must end with STATUS.
step() {
    local want=$1 what=$2 st=0
    shift 2
    "$@" || st=$?
    [ "$st" -eq "$want" ] || failed+=("$what: wanted exit status $want, got $st")
}

"$dir/ibp-isp" "${log_args[@]}" >"$out" 2>&1 &
pid=$!
for _ in $(seq 50); do grep -q serving "$out" && break; sleep 0.1; done
if ! grep -q serving "$out"; then
    cat "$out"; echo "demo: the service did not start"; exit 1
fi
echo "== ibp-isp is running (pid $pid)"

# dt STATUS LINE [TEXT]: one line through the debug tool, as a script would
# run it; it must end with STATUS and, if given, answer TEXT.
dt() {
    local st=0 res
    echo
    echo "\$ ibp-dt -c \"$2\""
    res=$("$dir/ibp-dt" "${log_args[@]}" -c "$2" 2>&1) || st=$?
    printf '%s\n' "$res"
    if [ "$st" -ne "$1" ] || [[ $res != *"${3:-}"* ]]; then
        failed+=("ibp-dt -c \"$2\": wanted exit status $1${3:+ and \"$3\"}, got $st")
    fi
}
dt 0 "isp bp proc cfg"
dt 0 "isp bp log IMG 0"
echo
echo "== ibp-ping sends 100 synchronous records of 64 bytes to ISP_IMG; a monitor shows the first 6 messages"
"$dir/ibp-dt" --monitor --module ISP_IMG --count 6 >"$out.monitor" 2>&1 &
monitor=$!
# The monitor watches once the service's tap is on.
for _ in $(seq 50); do
    "$dir/ibp-dt" "${log_args[@]}" -c "isp stat proc" 2>/dev/null | grep -q '^MonitorTap *1$' && break
    sleep 0.1
done
step 0 "ibp-ping" "$dir/ibp-ping" "${log_args[@]}"
mst=0
wait "$monitor" || mst=$?
echo
echo "\$ ibp-dt --monitor --module ISP_IMG --count 6"
cat "$out.monitor"
rm -f "$out.monitor"
[ "$mst" -eq 0 ] || failed+=("ibp-dt --monitor: wanted exit status 0, got $mst")
dt 0 "isp img stats"
dt 0 "isp stat module" "ISP_IMG"
dt 1 "isp bp pro" "Wrong command input!"  # a typo, reported

if [ -t 0 ]; then
    echo
    echo "== the interactive command line: TAB completes and lists, arrows edit and recall, \"q\" leaves"
    step 0 "the interactive ibp-dt" "$dir/ibp-dt" "${log_args[@]}"
fi

stop_service
echo
echo "== the service's output"
cat "$out"
if [ ${#failed[@]} -ne 0 ]; then
    echo
    printf 'demo: failed: %s\n' "${failed[@]}"
    exit 1
fi
