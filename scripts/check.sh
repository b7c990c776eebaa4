#!/usr/bin/env bash
# check.sh BUILD_ROOT [native|armhf|tsan]...
# Builds and runs every test: x86-64 with AddressSanitizer and UBSan, then the
# armhf cross build under qemu-user. Ends with "N passed, N failed".
set -uo pipefail
root=${1:-build}; shift || true
runs=("$@"); [ ${#runs[@]} -eq 0 ] && runs=(native armhf)
jobs=${JOBS:-$(nproc)}
src=$(cd "$(dirname "$0")/.." && pwd)
passed=0 failed=0

run_suite() {  # name, cmake options...
    local name=$1; shift
    local dir=$root/$name log
    echo "== $name: configure and build"
    if ! { cmake -S "$src" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIBP_BUILD_APPS=ON "$@" >"$dir.configure.log" 2>&1 &&
           cmake --build "$dir" -j "$jobs" >"$dir.build.log" 2>&1; }; then
        cat "$dir.configure.log" "$dir.build.log" 2>/dev/null | grep -E 'error|Error' | head -n 40
        echo "== $name: build FAILED (see $dir.build.log)"
        failed=$((failed + 1))
        return
    fi
    echo "== $name: test"
    log=$dir.test.log
    (cd "$dir" && ctest -j "$jobs" --output-on-failure) 2>&1 | tee "$log" | grep -E '^ *[0-9]+/[0-9]+ Test|tests passed|Failed|\*\*\*' || true
    local summary total bad
    summary=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
    if [ -z "$summary" ]; then
        echo "== $name: no test summary"
        failed=$((failed + 1))
        return
    fi
    bad=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    total=$(sed -E 's/.* tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    passed=$((passed + total - bad))
    failed=$((failed + bad))
}

mkdir -p "$root"
for r in "${runs[@]}"; do
    case $r in
        native) run_suite native -DIBP_SANITIZE=ON ;;
        armhf) run_suite armhf -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake" ;;
        tsan) run_suite tsan -DIBP_TSAN=ON ;;
        *) echo "unknown run $r"; exit 2 ;;
    esac
done

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
