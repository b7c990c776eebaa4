#!/bin/sh
# installed_tools.sh EXPECTED, in the test namespaces of the ARM guest: the
# programs of the installed ibp-tools package load libibp.so.0 of the
# installed libibp0 package; ibp-isp serves ibp-ping and ibp-dt and stops
# with status 0 on SIGINT. What they print is compared with EXPECTED.
expected=$1
[ -n "${IBP_TEST_ISOLATED:-}" ] || { echo "needs private namespaces: ${IBP_TEST_NO_ISOLATION:-not run through isolate.sh}"; exit 1; }
lib=/usr/lib/arm-linux-gnueabihf/libibp.so.0
tmp=$(mktemp -d) || exit 1
service=
trap '[ -n "$service" ] && kill "$service" 2>/dev/null; rm -rf "$tmp"' EXIT
status=0
for p in ibp-isp ibp-ping ibp-dt; do
    got=$(LD_TRACE_LOADED_OBJECTS=1 "/usr/bin/$p" | sed -n 's/^[[:space:]]*libibp\.so\.0 => \([^ ]*\).*/\1/p')
    [ "$got" = "$lib" ] || { echo "/usr/bin/$p loads libibp.so.0 from '${got:-nowhere}', not $lib"; status=1; }
done
/usr/bin/ibp-isp --log-stdout >"$tmp/service" 2>&1 &
service=$!
for _ in $(seq 100); do grep -qs serving "$tmp/service" && break; sleep 0.1; done
{
    /usr/bin/ibp-ping -n 20 --log-stdout >"$tmp/ping"
    rc=$?
    sed '/^round trip/d' "$tmp/ping"  # times differ from run to run
    echo "ibp-ping: $rc"
    /usr/bin/ibp-dt -c "isp img stats"
    echo "ibp-dt: $?"
    kill -INT "$service"
    wait "$service"
    echo "ibp-isp: $?"
    service=
    tail -n 1 "$tmp/service"
} >"$tmp/out" 2>&1
diff -u "$expected" "$tmp/out" || { echo "the service's output:"; tail -n 20 "$tmp/service"; status=1; }
[ $status -eq 0 ] && echo "installed tools: as expected"
exit $status
