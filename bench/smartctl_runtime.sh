#!/bin/sh
# Median wall time of one `smartctl -a -j DEVICE` run (what the helper does once a second), to set
# against the interpretation benchmark (vantorix_bench --benchmark_filter=Smart). Needs root.
# Usage: bench/smartctl_runtime.sh [DEVICE] [RUNS]
set -eu
device=${1:-/dev/vda}
runs=${2:-21}
i=0
while [ "$i" -lt "$runs" ]; do
    start=$(date +%s%N)
    smartctl -a -j "$device" >/dev/null 2>&1 || true  # smartctl's exit status is a bit mask, not a failure
    end=$(date +%s%N)
    echo $(( (end - start) / 1000 ))
    i=$((i + 1))
done | sort -n | awk -v device="$device" '{ t[NR] = $1 } END {
    printf "smartctl -a -j %s: median %d us, min %d us, max %d us over %d runs\n", device, t[int((NR + 1) / 2)], t[1], t[NR], NR }'
