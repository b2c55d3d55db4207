#!/usr/bin/env bash
# How often the exporter asks an idle drive for its SMART data. `vantorix-cli serve` watches a
# quiet loop volume at its default SMART interval (1 min) for MINUTES (10 by default), with the
# real helper running a smartctl stand-in that logs each start and prints a saved ATA answer. It
# prints how many times smartctl started (1: the first refresh; the drive is left alone after
# that), then writes 1 MiB to the volume once and prints the count again two intervals later (2),
# with the device's sectors read and written beside each count and the figures' age the exporter
# reports. The file written is laid out before the exporter starts (and the file system
# left to settle for 40 s), and the write is synced as a program saving a file does, so the device
# completes its writes (data and journal) at once. At the end it lists when smartctl started and
# when the device's counters moved (seconds since the exporter started): each start after the
# first follows moved sectors; anything else on the machine that touches the volume shows there
# too (a sync(2) anywhere sends every file system an empty write with a cache flush: a request,
# no sector, no start).
# Needs root (loop device, mount) and curl. Everything it starts or makes is removed when it ends,
# however it ends.
#
#   bench/smart_idle_polling.sh [BUILD_DIR] [MINUTES]
set -euo pipefail
build=${1:-build/release}
minutes=${2:-10}
cli="$build/vantorix-cli"
helper="$build/vantorix-smartctl-helper"
fixture="$(cd "$(dirname "$0")/.." && pwd)/tests/data/smartctl/scrutiny-smart-ata-full.json"
[[ -x $cli && -x $helper ]] || { echo "needs $cli and $helper" >&2; exit 1; }
command -v curl >/dev/null || { echo "needs curl" >&2; exit 1; }

work=$(mktemp -d /tmp/vantorix-idle.XXXXXX)
chmod 755 "$work"
device=
mounted=0
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  if ((mounted)); then umount "$work/mnt" || umount -l "$work/mnt" || true; fi
  [[ -z $device ]] || losetup -d "$device" || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
# A wait that a signal ends at once.
pause() { sleep "$1" & wait $!; }

cat >"$work/smartctl" <<SCRIPT
#!/bin/sh
echo "\$(date +%s) \$*" >> "$work/starts.log"
cat "$fixture"
SCRIPT
chmod 755 "$work/smartctl"
touch "$work/starts.log"
starts() { wc -l <"$work/starts.log"; }

truncate -s 256M "$work/volume.img"
mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 "$work/volume.img"
device=$(losetup --find --show "$work/volume.img")
name=$(basename "$device")
mkdir "$work/mnt"
mount -o noatime "$device" "$work/mnt"
mounted=1
dd if=/dev/zero of="$work/mnt/once" bs=1M count=1 oflag=direct conv=fsync status=none
sync
pause 40

"$helper" --socket "$work/helper.sock" --smartctl "$work/smartctl" 2>"$work/helper.log" &
pids+=($!)
for _ in $(seq 50); do [[ -S $work/helper.sock ]] && break; sleep 0.1; done
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
VANTORIX_HELPER_SOCKET="$work/helper.sock" "$cli" serve --listen "127.0.0.1:$port" --volume "$work/mnt" \
  --health-database "$work/health.sqlite" 2>"$work/serve.log" &
pids+=($!)

report() {
  local age counters
  age=$(curl -sf "http://127.0.0.1:$port/metrics" | awk '/^vantorix_smart_data_age_seconds/ {print $2}')
  counters=$(awk '{print $3 " sectors read, " $7 " written"}' "/sys/class/block/$name/stat")
  printf '%-34s smartctl started %s time(s); %s; SMART data age %s s\n' "$1" "$(starts)" "$counters" "${age:-none}"
}
started=$(date +%s)
# The device's completed reads and writes, once a second, whenever they change.
(last=; while :; do now=$(awk '{print $3 " sectors read, " $7 " written; " $5 " writes, " $16 " flushes"}' "/sys/class/block/$name/stat")
  [[ $now == "$last" ]] || echo "$(($(date +%s) - started)) s: $now" >>"$work/moves.log"; last=$now; sleep 1; done) &
pids+=($!)
pause 5
report "after 5 s:"
pause $((minutes * 60 - 5))
report "after $minutes min idle:"
dd if=/dev/zero of="$work/mnt/once" bs=1M count=1 oflag=direct conv=notrunc status=none
sync
report "right after one 1 MiB write:"
pause 120
report "2 min after the write:"
echo "exporter ran $(($(date +%s) - started)) s at the default SMART interval"
echo "smartctl started at:" $(awk -v s="$started" '{printf "%d s, ", $1 - s}' "$work/starts.log")
echo "the device's counters moved at:"
cat "$work/moves.log"
