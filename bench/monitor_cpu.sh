#!/bin/sh
# CPU cost of headless monitoring: runs `vantorix-cli monitor` at 1 ms for SECONDS (default 60)
# and, for comparison, the least any process needs to wake every millisecond on this machine
# (bench/timerfd_floor.c). Prints both as a percentage of one core.
#
#   bench/monitor_cpu.sh [build-dir] [seconds] [path]
set -eu
build=${1:-build/release}
seconds=${2:-60}
path=${3:-/}
here=$(dirname "$0")
cli="$build/vantorix-cli"
[ -x "$cli" ] || { echo "no $cli; build it first" >&2; exit 1; }

device=$("$cli" info "$path" --json 2>/dev/null | sed -n 's/.*"bsdName": "\([^"]*\)".*/\1/p')
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cc -O2 -o "$tmp/floor" "$here/timerfd_floor.c"

percent() {  # command...: runs it and prints user+sys as a percentage of its wall time
    /usr/bin/time -f "%U %S %e" -o "$tmp/time" "$@" >/dev/null 2>&1
    awk '{ printf "%.1f%% of one core (user %.2f s, sys %.2f s, wall %.1f s)\n", 100 * ($1 + $2) / $3, $1, $2, $3 }' "$tmp/time"
}

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
printf 'vantorix-cli monitor %s --precision 1 --duration %s: ' "$path" "$seconds"
percent "$cli" monitor "$path" --precision 1 --duration "$seconds" --json
printf 'timerfd floor (1 ms epoll + pread of %s stat): ' "$device"
percent "$tmp/floor" "$seconds" "/sys/class/block/$device/stat"
