#!/usr/bin/env bash
# check.sh BUILD_ROOT [native|armhf|armhf-user|tsan]...
# Builds and runs every test: x86-64 with AddressSanitizer and UBSan, then the
# armhf cross build on an ARM kernel under qemu-system-arm, its programs
# installed from its own armhf packages (scripts/arm_system.sh). armhf-user is
# the quick armhf run under qemu-user, with every program linked statically.
# Counts GoogleTest cases, not programs, and ends with "N passed, N failed, N
# skipped", the distinct reasons of the skips listed once above it.
#
# A skip is allowed only where the reason is outside the project's hands:
# natively when this machine cannot make the test namespaces, and under
# qemu-user for the emulator limits that the tests name as such. Any other
# skip counts as a failure, so a green line never hides tests that did not run.
#
# Environment: JOBS (parallel tests), CTEST_ARGS (more ctest arguments, such
# as --repeat until-fail:5 from check-stress).
set -uo pipefail
root=${1:-build}; shift || true
runs=("$@"); [ ${#runs[@]} -eq 0 ] && runs=(native armhf)
jobs=${JOBS:-$(nproc)}
src=$(cd "$(dirname "$0")/.." && pwd)
passed=0 failed=0 skipped=0
reasons=$(mktemp)
trap 'rm -f "$reasons"' EXIT

# The phrase by which a test says that its skip is an emulator limit.
emulator_mark='an emulator limit'
if why=$(unshare --net --mount --propagation private true 2>&1); then
    namespaces=1
else
    namespaces=0
    echo "note: this machine cannot make test namespaces ($why); tests that need them skip"
fi

# cases XML_FILE: one line per GoogleTest case, "result<TAB>name<TAB>skip reason".
cases() {
    awk '
        function attr(s, n,   r) { r = s; if (!sub(".*[ ]" n "=\"", "", r)) return ""; sub("\".*", "", r); return r }
        function flush() { if (name != "") print res "\t" name "\t" why; name = "" }
        /<testcase / { flush(); name = attr($0, "classname") "." attr($0, "name"); why = "";
                       res = attr($0, "result") == "skipped" ? "skipped" : "passed" }
        /<failure / { res = "failed" }
        /<skipped message="/ { why = attr($0, "message"); sub(/^[^&]*&#x0A;/, "", why); gsub(/&#x0A;/, " ", why)
                               gsub(/&quot;/, "\"", why); gsub(/&apos;/, "\x27", why); gsub(/&lt;/, "<", why)
                               gsub(/&gt;/, ">", why); gsub(/&amp;/, "\\&", why) }
        END { flush() }' "$1"
}

# statuses CTEST_LOG: "name status" per test, from the lines of a ctest run;
# a repeated test counts by its last run.
statuses() {
    sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) \.+[* ]*([A-Za-z]+).*/\1 \2/p' "$1" |
        awk '{ last[$1] = $2 } END { for (n in last) print n, last[n] }'
}

# tally RUN DIR STATUSES: adds the cases of one run to the counts.
tally() {
    local run=$1 dir=$2 list=$3 name status xml res case why n_pass=0 n_fail=0 n_skip=0
    while read -r name status; do
        xml=$dir/gtest/$name.xml
        if [ ! -s "$xml" ]; then  # no GoogleTest program: one case
            if [ "$status" = Passed ]; then n_pass=$((n_pass + 1)); else n_fail=$((n_fail + 1)); fi
            continue
        fi
        local prog_fail=0
        while IFS=$'\t' read -r res case why; do
            if [ "$res" = skipped ]; then
                if { [ "$run" = armhf-user ] && [[ $why == *"$emulator_mark"* ]]; } ||
                   { [ $namespaces -eq 0 ] && [[ $why == "needs private namespaces"* ]]; }; then
                    n_skip=$((n_skip + 1))
                    printf '%s: %s\n' "$run" "$why" >>"$reasons"
                    continue
                fi
                echo "== $run: $case skipped, which is not allowed here: $why"
                res=failed
            fi
            if [ "$res" = failed ]; then n_fail=$((n_fail + 1)); prog_fail=1; else n_pass=$((n_pass + 1)); fi
        done < <(cases "$xml")
        # A program that crashed or timed out after its last report.
        if [ "$status" != Passed ] && [ $prog_fail -eq 0 ]; then
            echo "== $run: $name failed outside its cases ($status)"
            n_fail=$((n_fail + 1))
        fi
    done <"$list"
    echo "== $run: $n_pass passed, $n_fail failed, $n_skip skipped"
    passed=$((passed + n_pass)) failed=$((failed + n_fail)) skipped=$((skipped + n_skip))
}

# build NAME CMAKE_OPTIONS...: configures and builds $root/NAME; false on failure.
build() {
    local name=$1; shift
    local dir=$root/$name
    echo "== $name: configure and build"
    if ! { cmake -S "$src" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIBP_BUILD_APPS=ON "$@" >"$dir.configure.log" 2>&1 &&
           cmake --build "$dir" -j "$jobs" >"$dir.build.log" 2>&1; }; then
        cat "$dir.configure.log" "$dir.build.log" 2>/dev/null | grep -E 'error|Error' | head -n 40
        echo "== $name: build FAILED (see $dir.build.log)"
        failed=$((failed + 1))
        return 1
    fi
}

# ctest_run NAME LOG CTEST_ARGS...: ctest in $root/NAME; false without a summary.
ctest_run() {
    local dir=$root/$1 log=$2; shift 2
    # shellcheck disable=SC2086
    (cd "$dir" && GTEST_OUTPUT="xml:$dir/gtest/" ctest -j "$jobs" --output-on-failure "$@" ${CTEST_ARGS:-}) 2>&1 |
        tee "$log" | grep -E '^ *[0-9]+/[0-9]+ Test|tests passed|Failed|\*\*\*' || true
    if ! grep -qE 'tests passed, [0-9]+ tests failed out of [0-9]+' "$log"; then
        echo "== $1: no test summary"
        failed=$((failed + 1))
        return 1
    fi
}

run_suite() {  # name, cmake options...
    local name=$1 dir=$root/$1
    build "$@" || return
    echo "== $name: test"
    rm -rf "$dir/gtest"
    mkdir -p "$dir/gtest"
    ctest_run "$name" "$dir.test.log" || return
    tally "$name" "$dir" <(statuses "$dir.test.log")
}

# The armhf build on an ARM kernel: its packages are what the guest installs;
# the checks that read the build with the host's tools (label "host") run here.
run_armhf() {
    local dir=$root/armhf
    build armhf -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake" -DCMAKE_CROSSCOMPILING_EMULATOR= \
        -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf -DCMAKE_SKIP_BUILD_RPATH=ON || return
    echo "== armhf: packages"
    if ! (cd "$dir" && rm -rf packages && cpack) >"$dir.cpack.log" 2>&1; then
        tail -n 20 "$dir.cpack.log"
        echo "== armhf: cpack FAILED (see $dir.cpack.log)"
        failed=$((failed + 1))
        return
    fi
    rm -rf "$dir/gtest"
    mkdir -p "$dir/gtest"
    echo "== armhf: test on the build host (-L host)"
    ctest_run armhf "$dir.host-test.log" -L host || return
    "$src/scripts/arm_system.sh" "$root" "$dir" || { failed=$((failed + 1)); return; }
    tally armhf "$dir" <(statuses "$dir.host-test.log"; cat "$dir/guest/status")
}

mkdir -p "$root"
root=$(cd "$root" && pwd)
for r in "${runs[@]}"; do
    case $r in
        native) run_suite native -DIBP_SANITIZE=ON ;;
        armhf) run_armhf ;;
        armhf-user) run_suite armhf-user -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake" -DIBP_LINK_STATIC=ON ;;
        tsan) run_suite tsan -DIBP_TSAN=ON ;;
        *) echo "unknown run $r"; exit 2 ;;
    esac
done

if [ -s "$reasons" ]; then
    echo "skipped, by reason:"
    sort "$reasons" | uniq -c | sed 's/^ *\([0-9]*\) /  \1x /'
fi
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
