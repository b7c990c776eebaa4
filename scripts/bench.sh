#!/usr/bin/env bash
# bench.sh [BUILD_ROOT]
# Release build of the library and the benchmarks (BUILD_ROOT/bench), release
# build of the armhf library (BUILD_ROOT/bench-armhf), then every figure next
# to its floor measured in the same run, printed as one table:
#   figure: value (floor, ratio)  goal and notes
# The runs that bind 127.0.0.1:7001/7002 or write /var/log go into a private
# network and mount namespace (loopback up, fresh tmpfs on /var/log, /tmp,
# /run), so they never meet anything on the host. bench/README.md explains the
# figures.
#
# Before and after: the message and idle benchmarks run a second time on the
# library of an earlier commit (IBP_BENCH_BASE, by default the last one
# before the transport lost its ticks), built from `git archive` in
# BUILD_ROOT/bench-base; its figures stand beside today's as "before".
set -uo pipefail
base_ref_default=b3f5000

# ------------------------------------------------------------ inside the namespace
# tests/harness/isolate.sh makes the namespace, as it does for the tests.
if [ "${1:-}" = --inside ]; then
    dir=$2 rows=$3 base_lib=${4:-} nostats_lib=${5:-}
    if [ "${IBP_TEST_ISOLATED:-}" != 1 ]; then
        echo "bench: only the footprint was measured; the runs need a private namespace: ${IBP_TEST_NO_ISOLATION:-}" >&2
        exit 0
    fi
    export IBP_BENCH_ISOLATED=1
    gb=(--benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
        --benchmark_min_time=0.2 --benchmark_out_format=json)

    echo "== circular buffer" >&2
    # Nine repetitions: the copies swing with the host's memory traffic by
    # +-5%, as much as the margin of the goal.
    "$dir/bench/bench_circbuf" "${gb[@]}" --benchmark_repetitions=9 --benchmark_out="$dir/circbuf.json" \
        --benchmark_filter='BM_CircBufWriteRead|BM_MemcpyLock' >"$dir/bench_circbuf.log" 2>&1 &&
    jq -r '
        [.benchmarks[] | select(.aggregate_name == "median")] as $m
        | def med($n): ($m[] | select(.name == $n + "_median") | .bytes_per_second);
          [64, 1024, 4096][] as $k
        | med("BM_CircBufWriteRead/\($k)") as $v
        | med("BM_MemcpyLockWriteRead/\($k)") as $f
        | med("BM_MemcpyLock2WriteRead/\($k)") as $f2
        | ($v / $f) as $r
        | "ROW\t5 CBUF_Write+CBUF_Read \($k) B\t\($v / 1e9 * 100 | round / 100) GB/s"
          + "\t2 memcpy + lock/unlock \($f / 1e9 * 100 | round / 100) GB/s\t\($r * 100 | round / 100)"
          + "\t" + (if $k < 1024 then "no goal below 1 KiB"
                    elif $r >= 0.8 then "goal >=0.80: met" else "goal >=0.80: MISSED" end)
          + "; median of 9; with a lock per copy: \($f2 / 1e9 * 100 | round / 100) GB/s (\($v / $f2 * 100 | round / 100))"
        ' "$dir/circbuf.json" >>"$rows" || echo "ROW	5 circular buffer	FAILED	-	-	see $dir/bench_circbuf.log" >>"$rows"

    echo "== log" >&2
    "$dir/bench/bench_log" "${gb[@]}" --benchmark_out="$dir/log.json" >"$dir/bench_log.log" 2>&1 &&
    jq -r '
        [.benchmarks[] | select(.aggregate_name == "median")] as $m
        | def med($n): ($m[] | select(.name == $n + "_median"));
          med("BM_LogFiltered").cpu_time as $v
        | med("BM_FloorFiltered").cpu_time as $f
        | med("BM_LogFileRecord").items_per_second as $w
        | med("BM_FloorFileRecord").items_per_second as $g
        | med("BM_LogFileRecord").record_bytes as $b
        | "ROW\t4 log filtered LOG_Pirnt\t\($v * 10 | round / 10) ns/call"
          + "\tbare threshold check \($f * 10 | round / 10) ns\t\($v / $f * 100 | round / 100)"
          + "\tgoal <=2.00: " + (if $v / $f <= 2 then "met" else "MISSED" end) + "; median of 5, CPU time",
          "ROW\t4 log record to file (tmpfs)\t\($w / 1000 | round) k rec/s"
          + "\topen+append+write+close \($g / 1000 | round) k rec/s\t\($w / $g * 100 | round / 100)"
          + "\tgoal >=0.75: " + (if $w / $g >= 0.75 then "met" else "MISSED" end)
          + "; \($b) B records, rotation at 256 KiB included"
        ' "$dir/log.json" >>"$rows" || echo "ROW	4 log	FAILED	-	-	see $dir/bench_log.log" >>"$rows"

    echo "== cost of the statistics and the monitor's tap" >&2
    if [ -n "$nostats_lib" ]; then
        : >"$dir/stats_cost.txt"
        for i in 1 2 3 4 5 6 7 8 9; do  # alternating, so that both meet the same machine
            on=$("$dir/bench/bench_msg_local" --async-only 2>/dev/null | sed -n 's/^ASYNC\t//p')
            off=$(LD_LIBRARY_PATH=$nostats_lib "$dir/bench/bench_msg_local" --async-only 2>/dev/null |
                  sed -n 's/^ASYNC\t//p')
            echo "${on:-0} ${off:-0}" >>"$dir/stats_cost.txt"
        done
        med() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
        on=$(cut -d' ' -f1 "$dir/stats_cost.txt" | med) off=$(cut -d' ' -f2 "$dir/stats_cost.txt" | med)
        # Instructions per message, counted by callgrind. The library's own
        # are the same on every run; the rest (the heap, the futex calls of
        # the hand-offs) follow how the threads met, as the throughput does.
        # The cost of the counters is what they add to the library's own,
        # weighed against all that a message takes without them.
        irs() {  # LIBDIR: "<library's own> <all>" instructions of a run of 40000 messages
            local f="$dir/callgrind.out"
            LD_LIBRARY_PATH=$1 valgrind --tool=callgrind --callgrind-out-file="$f" \
                "$dir/bench/bench_msg_local" --async-only 40000 >/dev/null 2>&1 || return 1
            callgrind_annotate "$f" 2>/dev/null | awk '
                /libibp\.so/ { gsub(",", "", $1); own += $1 }
                /PROGRAM TOTALS/ { gsub(",", "", $1); all = $1 }
                END { print own, all }'
        }
        ir=""
        if command -v valgrind >/dev/null && command -v callgrind_annotate >/dev/null; then
            ir="$(irs "$dir") $(irs "$nostats_lib")"
        fi
        awk -v on="$on" -v off="$off" -v ir="$ir" 'BEGIN {
            r = off > 0 ? on / off : 0
            n = split(ir, i, " ")
            x = n == 4 ? (i[1] - i[3]) / 40000 : 0
            y = n == 4 ? i[4] / 40000 : 0
            ri = y > 0 ? y / (y + x) : 0
            verdict = ri > 0 ? ri : r
            printf "ROW\t1 async in-process, statistics and tap on\t%.2f M msg/s\twithout them %.2f M msg/s\t%.2f\tgoal >=0.95: %s; medians of 9 runs each, alternating, of 7 x 100000 msgs%s; the tap off costs one relaxed load per message\n",
                on / 1e6, off / 1e6, r, (verdict >= 0.95 ? "met" : "MISSED"),
                (ri > 0 ? sprintf("; judged by instructions (callgrind): the counters and the tap add %.0f to the library'"'"'s own per message, against %.0f that a message takes in all without them, %.2f", x, y, ri) : "; judged by the throughput") }' >>"$rows"
    fi

    for prog in bench_msg_local bench_msg_ipc bench_idle bench_hostile; do
        echo "== $prog" >&2
        "$dir/bench/$prog" 2>"$dir/$prog.log" | grep '^ROW' >>"$rows" ||
            echo "ROW	$prog	FAILED	-	-	see $dir/$prog.log" >>"$rows"
        if [ -n "$base_lib" ]; then
            echo "== $prog on the library before" >&2
            LD_LIBRARY_PATH=$base_lib "$dir/bench/$prog" 2>"$dir/$prog.before.log" |
                sed -n 's/^ROW/BEFORE/p' >>"$rows"
        fi
    done
    exit 0
fi

# ------------------------------------------------------------------ outside
start=$(date +%s)
root=${1:-build}
jobs=${JOBS:-2}
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root"
root=$(cd "$root" && pwd)
dir=$root/bench arm=$root/bench-armhf
rows=$dir/bench.rows

build() {  # dir, what, cmake options...
    local d=$1 what=$2; shift 2
    echo "== build $what ($d)" >&2
    if ! { cmake -S "$src" -B "$d" -DCMAKE_BUILD_TYPE=Release -DIBP_BUILD_TESTS=OFF -DIBP_BUILD_APPS=OFF "$@" \
               >"$d.configure.log" 2>&1 &&
           cmake --build "$d" -j "$jobs" ${target:+--target "$target"} >"$d.build.log" 2>&1; }; then
        grep -hE 'error|Error' "$d.configure.log" "$d.build.log" | head -n 30 >&2
        echo "bench: build of $what FAILED (see $d.build.log)" >&2
        exit 1
    fi
}
target='' build "$dir" "x86-64 library and benchmarks" -DIBP_BUILD_BENCH=ON
target=ibp build "$arm" "armhf library" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-armhf.cmake"
nostats=$root/bench-nostats
target=ibp build "$nostats" "x86-64 library without statistics" -DIBP_STATS=OFF

base_ref=${IBP_BENCH_BASE:-$base_ref_default} base_lib=
base=$root/bench-base
if git -C "$src" rev-parse -q --verify "$base_ref^{commit}" >/dev/null 2>&1; then
    rm -rf "$base/src" && mkdir -p "$base/src" && git -C "$src" archive "$base_ref" | tar -x -C "$base/src" &&
        src="$base/src" target=ibp build "$base/build" "library of $base_ref (before)" &&
        base_lib=$base/build
else
    echo "bench: no commit $base_ref here (a shallow clone?): no before figures" >&2
fi

: >"$rows"
kib() { echo "$(( ($(stat -c %s "$1") + 1023) / 1024 ))"; }
strip -o "$dir/libibp.stripped.so" "$dir/libibp.so"
arm-linux-gnueabihf-strip -o "$arm/libibp.stripped.so" "$arm/libibp.so"
x86=$(kib "$dir/libibp.stripped.so") armk=$(kib "$arm/libibp.stripped.so")
printf 'ROW\t6 libibp.so stripped, x86-64\t%s KiB\t-\t-\tRelease\n' "$x86" >>"$rows"
awk -v k="$armk" 'BEGIN { printf "ROW\t6 libibp.so stripped, armhf\t%d KiB\tgoal 256 KiB\t%.2f\tgoal <=256 KiB: %s\n",
    k, k / 256, (k <= 256 ? "met" : "MISSED") }' >>"$rows"

"$src/tests/harness/isolate.sh" "$0" --inside "$dir" "$rows" "$base_lib" "$nostats" ||
    echo "bench: the runs in the namespace failed" >&2

echo
echo "ibp benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(uname -sr)"
sort -t$'\t' -s -k2.1,2.1 "$rows" | awk -F'\t' -v ref="$base_ref" '
    $1 == "BEFORE" { before[$2] = $3; next }
    $1 == "ROW" { label[++n] = $2; line[n] = $0 }
    END { for (i = 1; i <= n; i++) {
              split(line[i], f, "\t")
              was = (f[2] in before) ? sprintf("; before (%s): %s", ref, before[f[2]]) : ""
              printf "%-44s %s (%s, %s)  %s%s\n", f[2] ":", f[3], f[4], f[5], f[6], was } }' |
    tee "$dir/bench.table"
echo "(whole run $(( $(date +%s) - start )) s; details in $dir/*.log)"
