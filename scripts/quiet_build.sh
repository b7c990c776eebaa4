#!/usr/bin/env bash
# quiet_build.sh BUILD_DIR: the release build of `make build`, shown as one
# line per step. The output of each step goes to BUILD_DIR.<step>.log and is
# shown only when the step fails.
set -uo pipefail
dir=${1:-build/release}
src=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-$(nproc)}
mkdir -p "$dir"
step() {  # step NAME TEXT COMMAND...
    local log=$dir.$1.log text=$2 start=$SECONDS; shift 2
    printf '== build: %s ... ' "$text"
    if "$@" >"$log" 2>&1; then
        echo "done ($((SECONDS - start)) s)"
    else
        echo "FAILED"
        cat "$log"
        echo "== build: $text failed; the output above is also in $log"
        exit 1
    fi
}
step configure "configure $dir" cmake -S "$src" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF
step compile "compile the library and the programs" cmake --build "$dir" -j "$jobs"
