#!/usr/bin/env bash
# check_stress.sh [BUILD_ROOT]
# The test suites while every core is kept busy: the native suite repeated
# (each test up to STRESS_REPEAT times, 5 by default, stopping at its first
# failure), then the armhf suite once, both beside one busy loop per core.
# A test that only passes when its threads happen to run in the expected
# order fails here. Ends with "N passed, N failed, N skipped" over both runs,
# as `make check` does, and exits non-zero on any failure.
#
# Environment: STRESS_REPEAT (default 5), STRESS_NICE (niceness of the busy
# loops, default 19: they take the cores whenever the tests leave them idle,
# and yield at once to a test thread that wakes up), JOBS (as for check.sh).
set -uo pipefail
root=${1:-build}
repeat=${STRESS_REPEAT:-5}
niceness=${STRESS_NICE:-19}
here=$(cd "$(dirname "$0")" && pwd)

load_pids=()
stop_load() {
    local p
    for p in "${load_pids[@]}"; do kill "$p" 2>/dev/null; done
    for p in "${load_pids[@]}"; do wait "$p" 2>/dev/null; done
    load_pids=()
}
trap stop_load EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# One busy loop per core. Each also ends by itself once this script is gone
# (killed with SIGKILL, say), so that no loop outlives the run.
me=$$
for _ in $(seq "$(nproc)"); do
    nice -n "$niceness" bash -c '
        while kill -0 "$1" 2>/dev/null; do
            for ((i = 0; i < 200000; i++)); do :; done
        done' load "$me" &
    load_pids+=($!)
done
echo "== load: ${#load_pids[@]} busy loops at nice $niceness (pids ${load_pids[*]})"

passed=0 failed=0 skipped=0
out=$(mktemp)
trap 'stop_load; rm -f "$out"' EXIT

# run LABEL ARGS...: one check.sh run; its closing line adds to the totals.
run() {
    local label=$1; shift
    "$@" 2>&1 | tee "$out"
    local line
    line=$(grep -E '^[0-9]+ passed, [0-9]+ failed, [0-9]+ skipped$' "$out" | tail -n 1)
    if [ -z "$line" ]; then
        echo "== $label: no summary line"
        failed=$((failed + 1))
        return
    fi
    read -r p _ f _ s _ <<<"$line"
    passed=$((passed + p)) failed=$((failed + f)) skipped=$((skipped + s))
}

run "native x$repeat" env CTEST_ARGS="--repeat until-fail:$repeat ${CTEST_ARGS:-}" "$here/check.sh" "$root" native
run armhf "$here/check.sh" "$root" armhf

stop_load
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
