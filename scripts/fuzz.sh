#!/usr/bin/env bash
# fuzz.sh BUILD_ROOT: builds the libFuzzer targets of tests/fuzz with clang
# (AddressSanitizer and UBSan) in BUILD_ROOT/fuzz and runs each for
# FUZZ_SECONDS inside the test namespaces, on a scratch copy of its corpus and
# regressions (BUILD_ROOT/fuzz/corpus/<target>; inputs found there are kept
# for the next run, the repository's corpus is never written). Prints one line
# per target with its executions and whether it crashed. A crash, leak,
# time-out or sanitizer report fails the run; its input is left in
# BUILD_ROOT/fuzz/crashes/<target>/ and the fuzzer's output beside it.
#
# Environment: FUZZ_SECONDS (default 60), FUZZ_TARGETS (names such as
# "recv xml", default all), JOBS (parallel build jobs).
set -uo pipefail
root=${1:-build}
secs=${FUZZ_SECONDS:-60}
jobs=${JOBS:-$(nproc)}
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root"
root=$(cd "$root" && pwd)
dir=$root/fuzz

echo "== fuzz: configure and build with clang"
if ! { cmake -S "$src" -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
           -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIBP_SANITIZE=ON -DIBP_BUILD_FUZZ=ON \
           -DIBP_BUILD_TESTS=OFF -DIBP_BUILD_APPS=OFF >"$dir.configure.log" 2>&1 &&
       cmake --build "$dir" -j "$jobs" >"$dir.build.log" 2>&1; }; then
    cat "$dir.configure.log" "$dir.build.log" 2>/dev/null | grep -E 'error|Error' | head -n 40
    echo "== fuzz: build FAILED (see $dir.build.log)"
    exit 1
fi

targets=${FUZZ_TARGETS:-$(cd "$src/tests/fuzz" && ls fuzz_*.cpp | sed 's/^fuzz_//; s/\.cpp$//')}
failed=0
echo "== fuzz: $secs s per target"
for t in $targets; do
    bin=$dir/tests/fuzz/fuzz_$t
    if [ ! -x "$bin" ]; then
        echo "$t: no such target"
        failed=1
        continue
    fi
    work=$dir/corpus/$t crashes=$dir/crashes/$t log=$dir/crashes/$t.log
    mkdir -p "$work"
    for seeds in "$src/tests/fuzz/corpus/$t" "$src/tests/fuzz/regressions/$t"; do
        [ -d "$seeds" ] && cp -n "$seeds"/* "$work"/ 2>/dev/null
    done
    rm -rf "$crashes"
    mkdir -p "$crashes"
    # The service targets bind 127.0.0.1:7001 and every target writes under
    # /tmp: the namespaces keep both off the host. -timeout makes a hang a finding.
    "$src/tests/harness/isolate.sh" nice -n 10 "$bin" -max_total_time="$secs" -timeout=10 \
        -print_final_stats=1 -artifact_prefix="$crashes/" "$work" >"$log" 2>&1
    status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    found=$(find "$crashes" -type f | head -n 1)
    if [ $status -eq 0 ] && [ -z "$found" ]; then
        printf '%-10s %10s executions, no crash\n' "$t" "${runs:-?}"
        rm -rf "$crashes"
    else
        printf '%-10s %10s executions, CRASHED (status %d): %s; output in %s\n' "$t" "${runs:-?}" "$status" \
            "${found:-no input saved}" "$log"
        failed=1
    fi
done
[ $failed -eq 0 ] && echo "== fuzz: no crash" || echo "== fuzz: FAILED"
exit $failed
