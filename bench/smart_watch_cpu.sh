#!/bin/sh
# CPU cost of keeping a volume's SMART data current: runs `vantorix-cli smart PATH --watch` for
# SECONDS (default 60) against the real helper daemon, whose smartctl is a stand-in that prints a
# saved 38 KB SATA answer (so every refresh interprets and publishes a full table, as with a real
# drive). Prints the CLI's and the helper's CPU time as a percentage of one core. Needs root.
#
#   [FIXTURE=answer.json] bench/smart_watch_cpu.sh [build-dir] [seconds] [path] [--json]
set -eu
build=${1:-build/release}
seconds=${2:-60}
format=${4:-}  # --json for a JSON line per refresh
path=${3:-/}
cli="$build/vantorix-cli"
helper="$build/vantorix-smartctl-helper"
fixture=${FIXTURE:-$(cd "$(dirname "$0")/.." && pwd)/tests/data/smartctl/scrutiny-smart-ata-full.json}
[ -x "$cli" ] && [ -x "$helper" ] || { echo "build vantorix-cli and vantorix-smartctl-helper first" >&2; exit 1; }

tmp=$(mktemp -d)
cleanup() { kill "$daemon" 2>/dev/null || true; wait "$daemon" 2>/dev/null || true; rm -rf "$tmp"; }
trap cleanup EXIT
printf '#!/bin/sh\ncat %s\nexit 4\n' "$fixture" > "$tmp/smartctl"
chmod 755 "$tmp/smartctl"
"$helper" --socket "$tmp/helper.sock" --smartctl "$tmp/smartctl" &
daemon=$!
while [ ! -S "$tmp/helper.sock" ]; do sleep 0.05; done

ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }  # user + system, in clock ticks
hz=$(getconf CLK_TCK)

VANTORIX_HELPER_SOCKET="$tmp/helper.sock" "$cli" smart "$path" --watch $format > "$tmp/out" 2>/dev/null &
watch=$!
sleep 2  # start-up is not the steady state
cli0=$(ticks "$watch"); helper0=$(ticks "$daemon"); start=$(date +%s.%N)
sleep "$seconds"
cli1=$(ticks "$watch"); helper1=$(ticks "$daemon"); end=$(date +%s.%N)
kill -INT "$watch"; wait "$watch" || true

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "output: $(wc -l < "$tmp/out") lines in about $((seconds + 2)) s"
awk -v c0="$cli0" -v c1="$cli1" -v h0="$helper0" -v h1="$helper1" -v s="$start" -v e="$end" -v hz="$hz" 'BEGIN {
    wall = e - s
    printf "vantorix-cli smart --watch: %.2f%% of one core (%.2f s CPU in %.1f s)\n", 100 * (c1 - c0) / hz / wall, (c1 - c0) / hz, wall
    printf "vantorix-smartctl-helper:   %.2f%% of one core (%.2f s CPU, stand-in runs not included)\n", 100 * (h1 - h0) / hz / wall, (h1 - h0) / hz
}'
