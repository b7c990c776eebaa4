#!/bin/sh
# run_guest.sh LIST RESULTS, inside the ARM guest: runs every test script of
# the folder LIST (one per CTest entry, made on the host by
# scripts/arm_system.sh; a "# timeout N" line gives its limit), one per core
# at a time. Each leaves RESULTS/<script>.log and RESULTS/<script>.status,
# "name Passed|Failed|Timeout", for the host to count.
list=$1 results=$2
claims=/run/ibp-claims
mkdir -p "$claims" "$results" || exit 1

worker() {
    for t in "$list"/*.sh; do
        n=$(basename "$t" .sh)
        # The first worker to make the folder runs the test.
        mkdir "$claims/$n" 2>/dev/null || continue
        limit=$(sed -n 's/^# timeout //p' "$t")
        start=$(date +%s)
        timeout "${limit:-300}" sh "$t" >"$results/$n.log" 2>&1 </dev/null
        rc=$?
        case $rc in
            0) st=Passed ;;
            124 | 137 | 143) st=Timeout ;;
            *) st=Failed ;;
        esac
        echo "${n#*_} $st" >"$results/$n.status"
        echo "ibp-guest: ${n#*_} $st ($(($(date +%s) - start)) s)"
    done
}

i=0
while [ $i -lt "$(nproc)" ]; do
    worker &
    i=$((i + 1))
done
wait
