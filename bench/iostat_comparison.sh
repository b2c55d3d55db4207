#!/usr/bin/env bash
# Request figures side by side with iostat -x, over the same ten seconds of the same load.
#
#   bench/iostat_comparison.sh [BUILD_DIR] [RUNS] [PRECISION_MS]
#
# On a fresh 1 GiB loop volume (ext4, mounted under a temporary folder), fio writes 4 KiB blocks
# at random offsets with O_DIRECT at queue depth 4 (libaio) for 14 s. Two seconds in,
# `iostat -y -x -d DEVICE 10 1` (its one report covers the next 10 s; -y leaves out the report
# since boot) and `vantorix-cli monitor --json --duration 10` start together; the monitor's
# summary holds the whole run's figures from its summed counters. Prints both and the
# differences, and fails when await or aqu-sz differ by more than 10% or %util by more than 3
# points. Root, fio, iostat (sysstat) and jq.
set -euo pipefail
build=${1:-build/release}
runs=${2:-3}
precision=${3:-1}
cli="$build/vantorix-cli"
[[ -x $cli ]] || { echo "no $cli; build first" >&2; exit 1; }
for tool in fio iostat jq losetup mkfs.ext4; do
    command -v "$tool" >/dev/null || { echo "needs $tool (scripts/setup)" >&2; exit 1; }
done

work=$(mktemp -d)
loop=
cleanup() {
    pkill -P $$ 2>/dev/null || true
    wait 2>/dev/null || true
    mountpoint -q "$work/volume" 2>/dev/null && umount "$work/volume"
    [[ -n $loop ]] && losetup -d "$loop"
    rm -rf "$work"
}
trap cleanup EXIT
truncate -s 1G "$work/image"
loop=$(losetup -f --show "$work/image")
mkfs.ext4 -q "$loop"
mkdir "$work/volume"
mount "$loop" "$work/volume"
device=$(basename "$loop")

failed=0
for run in $(seq "$runs"); do
    fio --name=load --filename="$work/volume/fio.dat" --size=256M --rw=randwrite --bs=4k --direct=1 \
        --ioengine=libaio --iodepth=4 --time_based --runtime=14 --output=/dev/null &
    fio_pid=$!
    sleep 2
    iostat -y -x -d "$device" 10 1 >"$work/iostat.txt" &
    iostat_pid=$!
    "$cli" monitor "$work/volume" --json --duration 10 --precision "$precision" 2>/dev/null | tail -1 >"$work/monitor.json"
    wait "$iostat_pid"
    wait "$fio_pid"
    # iostat's columns by name, from its header line.
    read -r w_await aqu util < <(awk -v dev="$device" '
        $1 == "Device" { for (i = 1; i <= NF; i++) col[$i] = i }
        $1 == dev { print $col["w_await"], $col["aqu-sz"], $col["%util"] }' "$work/iostat.txt")
    read -r our_await our_aqu our_util < <(jq -r '.summary | "\(.writeAwaitMs) \(.averageQueueDepth) \(.utilization * 100)"' "$work/monitor.json")
    awk -v run="$run" -v a="$w_await" -v b="$our_await" -v c="$aqu" -v d="$our_aqu" -v e="$util" -v f="$our_util" 'BEGIN {
        da = 100 * (b - a) / a; dq = 100 * (d - c) / c; du = f - e
        printf "run %d  w_await  iostat %.4f ms  vantorix %.4f ms  (%+.1f%%)\n", run, a, b, da
        printf "       aqu-sz   iostat %.3f     vantorix %.3f     (%+.1f%%)\n", c, d, dq
        printf "       %%util    iostat %.2f      vantorix %.2f      (%+.2f points)\n", e, f, du
        bad = (da > 10 || da < -10 || dq > 10 || dq < -10 || du > 3 || du < -3)
        if (bad) print "       outside 10% / 3 points"
        exit bad
    }' || failed=1
done
exit "$failed"
