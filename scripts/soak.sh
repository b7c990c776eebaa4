#!/usr/bin/env bash
# soak.sh [BUILD_ROOT]
# Builds ibp-isp, ibp-ping, ibp-dt and tests/soak/soak_send with AddressSanitizer
# and UBSan in BUILD_ROOT/soak, then, in a private network and mount namespace
# (tests/harness/isolate.sh: loopback up, fresh tmpfs on /var/log, /tmp, /run),
# runs the service for SOAK_SECONDS (default 600) while at the same time
#   - one loop of clients: ibp-ping (20 synchronous records) and the ibp-dt -c
#     lines "isp bp proc cfg", "isp bp module info", "isp img stats" in turn;
#     both are debug tool processes and bind 127.0.0.1:7002, so they take turns;
#   - soak_send flood: well-formed async records to ISP_IMG;
#   - soak_send hostile: random bytes, runs of the prefix, mutated, truncated
#     and concatenated messages, synchronous acks that nobody waits for.
# Both senders use sockets on ephemeral ports, so they run beside the clients.
#
# Beside it, in a namespace of its own, a release twin (BUILD_ROOT/soak-release,
# no sanitizers) takes the same streams for the same time: the resident memory
# is judged there, since the sanitizer's allocator keeps growing its own
# regions and caches under a steady load (seen: +2 MiB in 270 s with the heap
# in use flat and the quarantine off).
#
# Then a summary of each with its verdicts, and a non-zero exit status when one
# fails:
#   - the service's open descriptors do not grow from the end of the warm-up
#     (10% of the run, at least 10 s) to the end;
#   - under the sanitizers, the bytes that it holds on the heap grow by at most
#     1 MiB, by the sanitizer's own count (tests/soak/heap_probe.c, preloaded):
#     a kept block shows there, allocator growth does not;
#   - in the release twin, its VmRSS grows by at most 1 MiB;
#   - every file under /var/log is one of the log file pairs and within its
#     rotation limit;
#   - the service still answers ibp-ping and ibp-dt once the streams stop;
#   - the service ends on SIGTERM with status 0 and no sanitizer report, and
#     no client reported one either.
# What the run leaves (outputs, a copy of /var/log, the summary) is in
# BUILD_ROOT/soak/run.
#
# Environment: SOAK_SECONDS (600), SOAK_WARMUP (seconds; 10% of the run, at
# least 10, by default), SOAK_SEED (1), SOAK_FLOOD_BURST (200) and
# SOAK_HOSTILE_BURST (30) datagrams per burst, SOAK_BURST_MS (100) between
# bursts, SOAK_STRAY_ACKS (1; 0 leaves the stray acks out of the hostile
# stream), SOAK_ASAN_OPTIONS (more AddressSanitizer options, after the run's
# own), JOBS (parallel build jobs, default 2).
set -uo pipefail

# ------------------------------------------------------------ inside the namespace
if [ "${1:-}" = --inside ]; then
    dir=$2
    if [ "${IBP_TEST_ISOLATED:-}" != 1 ]; then
        echo "soak: the run needs a private network and mount namespace: ${IBP_TEST_NO_ISOLATION:-}" >&2
        exit 1
    fi
    secs=${SOAK_SECONDS:-600}
    warm=$((secs / 10))
    [ "$warm" -lt 10 ] && warm=10
    warm=${SOAK_WARMUP:-$warm}
    if [ "$secs" -le "$warm" ]; then
        echo "soak: SOAK_SECONDS=$secs leaves no time after the warm-up of $warm s" >&2
        exit 2
    fi
    seed=${SOAK_SEED:-1}
    burst_ms=${SOAK_BURST_MS:-100}
    hostile_opts=(--per-burst "${SOAK_HOSTILE_BURST:-30}" --period-ms "$burst_ms" --seed "$seed")
    [ "${SOAK_STRAY_ACKS:-1}" = 0 ] && hostile_opts+=(--no-stray-acks)
    flood_opts=(--per-burst "${SOAK_FLOOD_BURST:-200}" --period-ms "$burst_ms" --seed "$seed")
    run=$dir/run
    rm -rf "$run"
    mkdir -p "$run"

    # A sanitizer report ends the program with status 86 and stands on its
    # standard error, which the summary shows. The quarantine of freed blocks
    # is kept small: at its default of 256 MiB it would fill for most of the
    # run, and the resident memory would grow by that much without a leak.
    export ASAN_OPTIONS=exitcode=86:halt_on_error=1:detect_leaks=1:quarantine_size_mb=4${SOAK_ASAN_OPTIONS:+:$SOAK_ASAN_OPTIONS}
    export UBSAN_OPTIONS=exitcode=86:halt_on_error=1:print_stacktrace=1
    sanitizer_report='ERROR: (Address|Leak)Sanitizer|runtime error:|SUMMARY: UndefinedBehaviorSanitizer'

    pids=()
    service=
    cleanup() {
        local p
        touch "$run/stop"
        for p in "${pids[@]}" $service; do kill -TERM "$p" 2>/dev/null; done
        for p in "${pids[@]}" $service; do wait "$p" 2>/dev/null; done
        # A client that the loop started just as it was told to stop.
        p=$(cat "$run/client.pid" 2>/dev/null) && kill -TERM "$p" 2>/dev/null
    }
    trap cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM

    # The probe goes behind the sanitizer's runtime, which must come first.
    probe=() heap_file=$run/heap
    asan_rt=$(ldd "$dir/ibp-isp" | awk '/libasan/ { print $3; exit }')
    if [ -n "$asan_rt" ] && [ -f "$dir/tests/soak/libheap_probe.so" ]; then
        probe=(env LD_PRELOAD="$asan_rt:$dir/tests/soak/libheap_probe.so" IBP_SOAK_HEAP_FILE="$heap_file")
    fi
    "${probe[@]}" "$dir/ibp-isp" >"$run/service.out" 2>"$run/service.err" &
    service=$!
    for _ in $(seq 100); do grep -q serving "$run/service.out" && break; sleep 0.1; done
    if ! grep -q serving "$run/service.out"; then
        cat "$run/service.out" "$run/service.err"
        echo "soak: the service did not start"
        exit 1
    fi

    # sample: "RSS_KiB FDS HEAP_KiB" of the service, each the least of five
    # looks 200 ms apart: a record being logged holds a descriptor for a
    # moment, and messages in flight hold memory. "-" for what is not known.
    sample() {
        local rss fds heap best_rss='' best_fds='' best_heap='' i
        if ! kill -0 "$service" 2>/dev/null; then
            echo "- - -"  # the service is gone
            return
        fi
        for i in 1 2 3 4 5; do
            rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$service/status")
            fds=$(ls "/proc/$service/fd" | wc -l)
            heap=$(awk '{ printf "%d", ($1 + 1023) / 1024 }' "$heap_file" 2>/dev/null)
            { [ -z "$best_rss" ] || [ "$rss" -lt "$best_rss" ]; } && best_rss=$rss
            { [ -z "$best_fds" ] || [ "$fds" -lt "$best_fds" ]; } && best_fds=$fds
            { [ -n "$heap" ] && { [ -z "$best_heap" ] || [ "$heap" -lt "$best_heap" ]; }; } && best_heap=$heap
            sleep 0.2
        done
        echo "$best_rss $best_fds ${best_heap:--}"
    }

    # One client run, in the background so that a signal to this script
    # reaches it through cleanup; a hung client is ended after 60 s.
    # Its status comes through a file: a long-lived shell that has started
    # thousands of background jobs now and then loses the status of one, and
    # its wait then gives -1 (seen 6 times in 37,000 runs).
    client() {  # OUT ERR PROGRAM ARGS...
        local out=$1 err=$2 st; shift 2
        rm -f "$run/client.status"
        (
            trap 'kill -TERM "$c" 2>/dev/null' TERM
            timeout -k 5 60 "$@" >"$out" 2>"$err" &
            c=$!
            wait "$c"
            echo $? >"$run/client.status"
        ) &
        local p=$!
        echo "$p" >"$run/client.pid"
        wait "$p"
        st=$(cat "$run/client.status" 2>/dev/null)
        return "${st:-125}"
    }
    # Keeps a client's standard error when it holds a sanitizer report.
    keep_report() {  # ERR WHAT
        # What matched, taken in the same read that finds it.
        local report
        report=$(grep -E -A 40 "$sanitizer_report" "$1")
        [ -n "$report" ] && printf '== %s\n%s\n' "$2" "$report" >>"$run/clients.sanitizer"
        return 0
    }
    # ping: a line "ping SENT ANSWERED STATUS" in the tally.
    ping_once() {
        local st sent answered
        client "$run/ping.out" "$run/ping.err" "$dir/ibp-ping" -n 20 -t 2000
        st=$?
        keep_report "$run/ping.err" "ibp-ping (status $st)"
        # "N answered, M failed"; without it not even the first was answered.
        read -r answered sent < <(awk '/ answered, [0-9]+ failed$/ { print $1, $1 + $3; f = 1 }
                                       END { if (!f) print 0, 1 }' "$run/ping.out")
        echo "ping $sent $answered $st" >>"$run/tally"
        [ "$st" -eq 0 ] || { echo "== ping, status $st"; cat "$run/ping.out" "$run/ping.err"; } >>"$run/clients.failed"
        return "$st"
    }
    dt_once() {  # LINE: a line "dt STATUS" in the tally
        local st
        client "$run/dt.out" "$run/dt.err" "$dir/ibp-dt" -c "$1"
        st=$?
        keep_report "$run/dt.err" "ibp-dt -c \"$1\" (status $st)"
        echo "dt $st" >>"$run/tally"
        [ "$st" -eq 0 ] || { echo "== ibp-dt -c \"$1\", status $st"; cat "$run/dt.out" "$run/dt.err"; } >>"$run/clients.failed"
        return "$st"
    }
    clients() {
        local i=0 p
        trap 'p=$(cat "$run/client.pid" 2>/dev/null) && kill -TERM "$p" 2>/dev/null; exit 0' TERM
        while [ ! -e "$run/stop" ]; do
            case $((i % 4)) in
                0) ping_once ;;
                1) dt_once "isp bp proc cfg" ;;
                2) dt_once "isp bp module info" ;;
                3) dt_once "isp img stats" ;;
            esac
            i=$((i + 1))
        done
    }

    read -r rss0 fds0 heap0 < <(sample)
    echo "== soak: ibp-isp pid $service, ${secs} s with a warm-up of ${warm} s; VmRSS $rss0 KiB, $fds0 descriptors"
    "$dir/tests/soak/soak_send" flood "${flood_opts[@]}" >"$run/flood.out" 2>&1 &
    flood=$!
    "$dir/tests/soak/soak_send" hostile "${hostile_opts[@]}" >"$run/hostile.out" 2>&1 &
    hostile=$!
    : >"$run/tally"
    clients &
    loop=$!
    pids=("$flood" "$hostile" "$loop")
    start=$(date +%s)

    sleep "$warm"
    read -r rss1 fds1 heap1 < <(sample)
    echo "== soak: after the warm-up VmRSS $rss1 KiB, $fds1 descriptors, $heap1 KiB on the heap"
    # The resident memory every 10 s, to see how it went when it grew.
    while kill -0 "$service" 2>/dev/null; do
        left=$((secs - ($(date +%s) - start)))
        [ "$left" -le 0 ] && break
        sleep $((left < 10 ? left : 10))
        echo "$(($(date +%s) - start)) s: VmRSS $(awk '/^VmRSS:/ { print $2 }' "/proc/$service/status" 2>/dev/null) KiB," \
             "heap $(cat "$heap_file" 2>/dev/null) B" >>"$run/progress"
    done

    # The hostile stream may leave a message that claims more bytes than came
    # waiting in the service's receive buffer, where it takes the next bytes
    # that arrive as its own. The flood goes on for two bursts more, which is
    # more than a message can claim, so that what follows is parsed afresh.
    kill -TERM "$hostile"; wait "$hostile"
    sleep "$(awk -v ms="$burst_ms" 'BEGIN { print 2 * ms / 1000 + 0.05 }')"
    kill -TERM "$flood"; wait "$flood"
    touch "$run/stop"
    wait "$loop"
    pids=()

    # The service still answers.
    ping_once >/dev/null 2>&1; final_ping=$?
    final_ping_out=$(grep -E 'answered|no answer' "$run/ping.out" "$run/ping.err" | head -n 1 | sed 's/^[^:]*://')
    dt_once "isp img stats" >/dev/null 2>&1; final_dt=$?
    stats=$(cat "$run/dt.out")
    sleep 1
    read -r rss2 fds2 heap2 < <(sample)

    kill -TERM "$service"
    stopped=0
    for _ in $(seq 600); do kill -0 "$service" 2>/dev/null || { stopped=1; break; }; sleep 0.1; done
    if [ "$stopped" = 0 ]; then
        echo "soak: the service did not stop within 60 s of SIGTERM; killing it" >>"$run/service.err"
        kill -KILL "$service"
    fi
    wait "$service"; service_status=$?
    service=
    cp -a /var/log "$run/var-log"

    # ------------------------------------------------------------ summary
    verdicts=0 failures=0
    verdict() {  # OK TEXT
        verdicts=$((verdicts + 1))
        if [ "$1" = 1 ]; then echo "  ok    $2"; else echo "  FAIL  $2"; failures=$((failures + 1)); fi
    }
    {
        echo
        echo "== soak summary, $([ -n "$asan_rt" ] && echo "under AddressSanitizer and UBSan" || echo "release twin"):" \
             "${secs} s, warm-up ${warm} s, seed $seed, bursts every $burst_ms ms"
        awk '$1 == "ping" { s += $2; a += $3; r++; if ($4 != 0) f++ }
             $1 == "dt" { d++; if ($2 == 0) ok++; else if ($2 == 1) wrong++; else if ($2 == 2) none++; else other++ }
             END { printf "requests: ibp-ping %d records sent, %d answered (%d runs, %d with a failure)\n", s, a, r, f
                   printf "          ibp-dt %d lines sent, %d answered (%d answered as failed, %d unanswered, %d ended otherwise)\n",
                          d, ok, wrong, none, other }' "$run/tally"
        echo "datagrams: $(cat "$run/flood.out")"
        echo "           $(cat "$run/hostile.out")"
        echo "service counts (isp img stats): $(echo "$stats" | tr '\n' ' ' | sed 's/ *$//')"
        echo "service VmRSS KiB: start $rss0, after warm-up $rss1, end $rss2"
        [ -n "$asan_rt" ] && echo "service heap in use KiB (sanitizer's count): start $heap0, after warm-up $heap1, end $heap2"
        echo "service descriptors: start $fds0, after warm-up $fds1, end $fds2"
        echo "verdicts:"
        if [ "$rss1" = - ] || [ "$rss2" = - ]; then
            verdict 0 "VmRSS and descriptors: the service was gone before the end"
        else
            if [ -z "$asan_rt" ]; then
                verdict "$([ $((rss2 - rss1)) -le 1024 ] && echo 1)" "VmRSS grew by $((rss2 - rss1)) KiB after the warm-up (at most 1024)"
            elif [ "$heap1" = - ] || [ "$heap2" = - ]; then
                verdict 0 "heap in use: not measured (no probe in $dir)"
            else
                echo "  -     VmRSS grew by $((rss2 - rss1)) KiB after the warm-up: the release twin judges it"
                verdict "$([ $((heap2 - heap1)) -le 1024 ] && echo 1)" \
                    "heap in use grew by $((heap2 - heap1)) KiB after the warm-up (at most 1024)"
            fi
            verdict "$([ $((fds2 - fds1)) -le 0 ] && echo 1)" "descriptors grew by $((fds2 - fds1)) after the warm-up (at most 0)"
        fi

        # The log file pairs and the size at which each rotates (0: never).
        # A file ends at most one record past its limit, the record that
        # crossed it; two processes share ISP_ALG00.log, so one record more
        # may follow before the rename. A record is far below 4 KiB.
        declare -A limit=(
            [ISP_ALG00.log]=262144 [ISP_ALG01.log]=262144 [ISP_AF00.log]=262144 [ISP_AF01.log]=262144
            [ISP_AF_Cali.log]=0 [ISP_AF_Cali01.log]=0 [AF_Test00.log]=0 [AF_Test01.log]=0
            [ISP_IMG00.log]=262144 [ISP_IMG01.log]=262144 [ISP_CLI00.log]=262144 [ISP_CLI01.log]=262144
            [ISP_FD00.log]=262144 [ISP_FD01.log]=262144)
        slack=4096
        logs_ok=1 listing=''
        while IFS= read -r -d '' f; do
            name=${f#"$run/var-log/"} size=$(stat -c %s "$f")
            listing+=" $name $size B;"
            if [ -z "${limit[$name]+set}" ]; then
                echo "        $name: not one of the log files"
                logs_ok=0
                continue
            fi
            lim=${limit[$name]}
            if [ "$lim" -gt 0 ] && [ "$size" -gt $((lim + slack)) ]; then
                echo "        $name: $size bytes, beyond its limit of $lim and one record"
                logs_ok=0
            fi
        done < <(find "$run/var-log" -mindepth 1 \( -type f -o -type l -o -type d \) -print0 | sort -z)
        echo "logs:${listing:- none}"
        verdict "$logs_ok" "every file under /var/log is a log file within its limit of 256 KiB (and one record)"
        verdict "$([ "$final_ping" = 0 ] && [ "$final_dt" = 0 ] && echo 1)" \
            "the service answers once the streams stop: ibp-ping${final_ping_out:+ ($final_ping_out)}, status $final_ping; ibp-dt status $final_dt"
        report=$(grep -E -A 40 "$sanitizer_report" "$run/service.err" | head -n 60)
        verdict "$([ "$service_status" = 0 ] && [ -z "$report" ] && echo 1)" \
            "ibp-isp ended on SIGTERM with status $service_status$([ -n "$report" ] && echo ', with a sanitizer report:' || echo ', no sanitizer report')"
        [ -n "$report" ] && echo "$report" | sed 's/^/        /'
        verdict "$([ ! -s "$run/clients.sanitizer" ] && echo 1)" \
            "no sanitizer report from ibp-ping or ibp-dt$([ -s "$run/clients.sanitizer" ] && echo "; see $run/clients.sanitizer")"
        [ -s "$run/clients.sanitizer" ] && head -n 40 "$run/clients.sanitizer" | sed 's/^/        /'
        if [ "$failures" -eq 0 ]; then
            echo "soak: PASS, $verdicts of $verdicts verdicts ok"
        else
            echo "soak: FAIL, $failures of $verdicts verdicts failed (outputs in $run)"
        fi
    } | tee "$run/summary"
    grep -q '^soak: PASS' "$run/summary"
    exit $?
fi

# ------------------------------------------------------------------ outside
root=${1:-build}
jobs=${JOBS:-2}
src=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root"
root=$(cd "$root" && pwd)
dir=$root/soak rel=$root/soak-release
build() {  # DIR WHAT CMAKE-OPTIONS... (the targets in $targets)
    local d=$1 what=$2; shift 2
    echo "== soak: build $what ($d)"
    if ! { cmake -S "$src" -B "$d" -DIBP_BUILD_TESTS=OFF -DIBP_BUILD_APPS=ON -DIBP_BUILD_SOAK=ON "$@" \
               >"$d.configure.log" 2>&1 &&
           cmake --build "$d" -j "$jobs" --target $targets >"$d.build.log" 2>&1; }; then
        grep -hE 'error|Error' "$d.configure.log" "$d.build.log" | head -n 30
        echo "soak: build FAILED (see $d.build.log)"
        exit 1
    fi
}
targets="ibp-isp ibp-ping ibp-dt soak_send heap_probe" \
    build "$dir" "with AddressSanitizer and UBSan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIBP_SANITIZE=ON
targets="ibp-isp ibp-ping ibp-dt soak_send" build "$rel" "the release twin" -DCMAKE_BUILD_TYPE=Release

"$src/tests/harness/isolate.sh" "$src/scripts/soak.sh" --inside "$rel" >"$rel.out" 2>&1 &
twin=$!
trap 'kill -TERM "$twin" 2>/dev/null' EXIT
"$src/tests/harness/isolate.sh" "$src/scripts/soak.sh" --inside "$dir"
status=$?
wait "$twin"
twin_status=$?
trap - EXIT
sed -n '/^== soak summary/,$p' "$rel.out"
[ "$twin_status" -eq 0 ] || grep -q '^== soak summary' "$rel.out" || cat "$rel.out"
if [ "$status" -eq 0 ] && [ "$twin_status" -eq 0 ]; then
    echo "soak: PASS, both runs"
else
    echo "soak: FAIL (sanitized run status $status, release twin status $twin_status)"
    exit 1
fi
