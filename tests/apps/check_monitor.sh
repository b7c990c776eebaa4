#!/bin/sh
# check_monitor.sh BIN_DIR: in a private network namespace, a monitor started
# before 30 pings prints 20 lines of their messages and ends with status 0;
# "isp stat module" counts the 30 pings at ISP_IMG; a monitor killed with
# SIGKILL leaves the service's tap off once its lease has run out.
bin=$1
[ -n "${IBP_TEST_ISOLATED:-}" ] || { echo "needs private namespaces: ${IBP_TEST_NO_ISOLATION:-not run through isolate.sh}"; exit 1; }
tmp=$(mktemp -d) || exit 1
trap 'kill "$service" "$monitor" 2>/dev/null; rm -rf "$tmp"' EXIT
status=0
fail() { echo "$*"; status=1; }
# tap_is VALUE [TRIES]: waits until "isp stat proc" shows the tap on (1) or off (0).
tap_is() {
    for _ in $(seq "${2:-100}"); do
        "$bin/ibp-dt" -c "isp stat proc" 2>/dev/null | grep -q "^MonitorTap *$1\$" && return 0
        sleep 0.1
    done
    return 1
}
"$bin/ibp-isp" --log-stderr >"$tmp/service" 2>/dev/null &
service=$!
for _ in $(seq 50); do grep -qs serving "$tmp/service" && break; sleep 0.1; done

"$bin/ibp-dt" --monitor --module ISP_IMG --count 20 >"$tmp/monitor" 2>&1 &
monitor=$!
tap_is 1 || fail "the monitor's tap did not come on"
"$bin/ibp-ping" -n 30 >/dev/null 2>&1 || fail "ibp-ping failed"
wait "$monitor" || fail "the monitor ended with status $?: $(cat "$tmp/monitor")"
[ "$(grep -cE '^[0-9:.]+ (DT -> ISP_IMG sync|ISP_IMG -> DT ack) id=0x20001 len=64$' "$tmp/monitor")" -eq 20 ] ||
    fail "not 20 lines of the pings: $(cat "$tmp/monitor")"
"$bin/ibp-dt" -c "isp stat module" | awk '$1 == "ISP_IMG" { ok = $3 >= 30 && $4 >= 30 } END { exit !ok }' ||
    fail "isp stat module does not count the 30 pings at ISP_IMG"

"$bin/ibp-dt" --monitor >/dev/null 2>&1 &
monitor=$!
tap_is 1 || fail "the second monitor's tap did not come on"
kill -KILL "$monitor"
tap_is 0 150 || fail "the tap stayed on after its monitor was killed"
exit $status
