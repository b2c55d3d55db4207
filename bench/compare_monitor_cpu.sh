#!/bin/sh
# CPU of two builds' command-line monitor at 1 ms, run side by side on the same machine at the same
# moment (so both meet the same load), with the timerfd floor beside them. Prints each as a
# percentage of one core (user + system time over wall time) and its ratio to the floor.
#
#   bench/compare_monitor_cpu.sh OLD_BUILD_DIR NEW_BUILD_DIR [seconds] [path]
set -eu
old=$1
new=$2
seconds=${3:-120}
path=${4:-/}
here=$(dirname "$0")
device=$("$new/vantorix-cli" info "$path" --json 2>/dev/null | sed -n 's/.*"device": "\([^"]*\)".*/\1/p')
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cc -O2 -o "$tmp/floor" "$here/timerfd_floor.c"
/usr/bin/time -f "%U %S %e" -o "$tmp/old" "$old/vantorix-cli" monitor "$path" --precision 1 --duration "$seconds" --json >/dev/null 2>&1 &
/usr/bin/time -f "%U %S %e" -o "$tmp/new" "$new/vantorix-cli" monitor "$path" --precision 1 --duration "$seconds" --json >/dev/null 2>&1 &
/usr/bin/time -f "%U %S %e" -o "$tmp/floor.time" "$tmp/floor" "$seconds" "/sys/class/block/$device/stat" >/dev/null 2>&1 &
wait
floor=$(awk '{print 100 * ($1 + $2) / $3}' "$tmp/floor.time")
for name in old new floor.time; do
    awk -v name="$name" -v floor="$floor" '{
        p = 100 * ($1 + $2) / $3
        printf "%s: %.2f%% of one core (user %.2f s, sys %.2f s, wall %.1f s), %.2fx the floor\n", name, p, $1, $2, $3, p / floor
    }' "$tmp/$name"
done
