#!/bin/sh
# The chart export side by side with gnuplot, in one run:
#   1. vantorix_bench's downsampling, CSV and PNG benchmarks on a full history of 60,000 samples;
#      its whole-export benchmark leaves the 60,000-row CSV in a temporary folder;
#   2. gnuplot (pngcairo terminal) draws that same CSV as two lines at 3840 × 2160, RUNS times,
#      timed as whole processes (start, CSV parsing, drawing, PNG encoding, file write).
# Ours is BM_ChartExportWritesFiles (CSV text, PNG drawn and encoded, both files written) and,
# for the picture alone, BM_ChartPngDrawAndEncode.
#
#   bench/run_chart_bench.sh [build-dir] [runs]      (defaults: build/h6 and 5)
set -eu

build=${1:-build/h6}
runs=${2:-5}
bench="$build/bench/vantorix_bench"
[ -x "$bench" ] || { echo "no $bench; build it with: ninja -C $build vantorix_bench" >&2; exit 1; }
command -v gnuplot >/dev/null || { echo "gnuplot is not installed (Debian: gnuplot-nox)" >&2; exit 1; }

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT INT TERM

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
VANTORIX_CHART_BENCH_DIR="$dir" "$bench" \
    --benchmark_filter='BM_(DownsampleBins|GraphCache|ChartCsv|ChartPng|ChartExportWritesFiles)'

rows=$(($(wc -l < "$dir/chart.csv") + 1))  # the last line has no line break
echo "$(gnuplot --version), pngcairo, 3840x2160, $rows lines of $dir/chart.csv"
cat > "$dir/plot.gp" <<EOF
set terminal pngcairo size 3840,2160
set output '$dir/gnuplot.png'
set datafile separator ','
set key autotitle columnhead
set xlabel 'elapsed_seconds'
set ylabel 'bytes per second'
plot '$dir/chart.csv' using 2:5 with lines lw 4 lc rgb '#34C759' title 'read', \
     '' using 2:6 with lines lw 4 lc rgb '#FF9500' title 'write'
EOF
times=""
i=0
while [ "$i" -lt "$runs" ]; do
    start=$(date +%s%N)
    gnuplot "$dir/plot.gp"
    end=$(date +%s%N)
    times="$times $(( (end - start) / 1000000 ))"
    i=$((i + 1))
done
echo "gnuplot runs (ms):$times"
echo "$times" | tr ' ' '\n' | grep . | sort -n | awk '{ t[NR] = $1 } END {
    m = (NR % 2) ? t[(NR + 1) / 2] : (t[NR / 2] + t[NR / 2 + 1]) / 2
    printf "gnuplot median: %d ms (min %d, max %d)\n", m, t[1], t[NR] }'
file "$dir/gnuplot.png" 2>/dev/null || true
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
