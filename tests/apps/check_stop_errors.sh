#!/bin/sh
# check_stop_errors.sh EXPECTED BIN_DIR: in a private network namespace, the
# errors that stop ibp-ping (no service) and a second ibp-isp (port taken)
# are one line each on standard error, with exit status 1; and where
# /var/log is read-only, ibp-dt -c and ibp-ping say so in one line each on
# standard error, keep standard output for answers and figures, and write
# their records where that line says.
expected=$1 bin=$2
[ -n "${IBP_TEST_ISOLATED:-}" ] || { echo "needs private namespaces: ${IBP_TEST_NO_ISOLATION:-not run through isolate.sh}"; exit 1; }
tmp=$(mktemp -d) || exit 1
trap 'kill "$service" 2>/dev/null; rm -rf "$tmp"' EXIT
status=0
"$bin/ibp-ping" -n 5 -t 300 --log-stdout >/dev/null 2>"$tmp/err"
[ $? -eq 1 ] || status=1
"$bin/ibp-isp" --log-stdout >"$tmp/service" 2>&1 &
service=$!
for _ in $(seq 50); do grep -qs serving "$tmp/service" && break; sleep 0.1; done
"$bin/ibp-isp" --log-stdout >/dev/null 2>>"$tmp/err"
[ $? -eq 1 ] || status=1
[ $status -eq 0 ] || echo "a program did not exit with status 1"
mount -o remount,ro /var/log || status=1
export XDG_STATE_HOME="$tmp"
[ "$("$bin/ibp-dt" -c "isp img stats" 2>>"$tmp/err")" = "$(printf 'sync requests answered: 0, 0 bytes\nasync records: 0')" ] || status=1
"$bin/ibp-ping" -n 2 >"$tmp/ping" 2>>"$tmp/err" || status=1
grep -qvE '^(ibp-ping: 2 records of 64 bytes to ISP_IMG|2 answered, 0 failed|round trip ms: .*)$' "$tmp/ping" && status=1
[ -s "$tmp/ibp/ibp-dt.log" ] || status=1
[ $status -eq 0 ] || echo "standard output or the records are not where they belong"
if ! sed "s|@STATE@|$tmp|" "$expected" | diff -u - "$tmp/err"; then status=1; fi
exit $status
