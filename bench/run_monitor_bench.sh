#!/bin/sh
# Runs the live-monitor benchmarks once the machine is idle, so that other work does not show up
# in the figures. Waits (up to MAX_WAIT seconds, default 1800) until the CPUs have been less than
# IDLE_BUSY percent busy (default 3) over a two-second window, then prints the load and runs
# vantorix_bench with the monitor benchmarks, passing any extra arguments on. The CPU usage over a
# window is printed again afterwards, to show whether something started meanwhile.
#
#   bench/run_monitor_bench.sh [build-dir] [-- benchmark args...]
#
# Environment: VANTORIX_BENCH_DEVICE, VANTORIX_BENCH_MOUNT, VANTORIX_BENCH_SECONDS and
# VANTORIX_BENCH_DUMP reach the benchmarks; BENCH_FILTER replaces the default filter.
set -eu

build=${1:-build-bench}
[ $# -gt 0 ] && shift
[ "${1:-}" = "--" ] && shift

bench="$build/bench/vantorix_bench"
[ -x "$bench" ] || { echo "no $bench; build it with: ninja -C $build vantorix_bench" >&2; exit 1; }

filter=${BENCH_FILTER:-'BM_(SamplingTick|ApplyBatchFullHistory|NaiveHistoryCopy|TickIntervalsAt1ms|BareTimerfdIntervalsAt1ms)'}
max_wait=${MAX_WAIT:-1800}
idle_busy=${IDLE_BUSY:-3}

# Percentage of CPU time spent busy over two seconds (idle and iowait count as idle).
busy() {
    a=$(head -1 /proc/stat)
    sleep 2
    b=$(head -1 /proc/stat)
    printf '%s\n%s\n' "$a" "$b" | awk '{
        idle = $5 + $6; total = 0
        for (i = 2; i <= NF; i++) total += $i
        if (NR == 1) { idle1 = idle; total1 = total }
        else printf "%.1f\n", 100 * (1 - (idle - idle1) / (total - total1))
    }'
}

waited=0
while :; do
    now=$(busy)
    if awk -v b="$now" -v limit="$idle_busy" 'BEGIN { exit !(b < limit) }'; then break; fi
    waited=$((waited + 2))
    if [ "$waited" -ge "$max_wait" ]; then
        echo "machine still busy (${now}%) after ${max_wait}s; running anyway" >&2
        break
    fi
    sleep 3
    waited=$((waited + 3))
done

echo "before: busy ${now}% | $(uptime)"
"$bench" --benchmark_filter="$filter" "$@"
echo "after:  busy $(busy)% | $(uptime)"
