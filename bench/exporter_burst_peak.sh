#!/usr/bin/env bash
# Two one-second bursts of write requests on a quiet loop volume, as a Prometheus server scraping
# the exporter every 5 s sees them. For every scrape it prints the highest await of one 100 ms
# sampling interval (vantorix_volume_await_peak_seconds{direction="write"}) beside the mean await
# Prometheus computes from the counters over the same scrape interval (rate of
# vantorix_volume_write_time_seconds_total over rate of vantorix_volume_writes_completed_total), the
# same for the queue depth, and each burst's own mean await from the device's stat file. It fails
# when a scrape interval holding a burst shows no await peak above its mean.
#
# The bursts are fio's 4 KiB random writes for 1 s, between quiet stretches of two scrapes: with
# O_DIRECT at queue depth 32, then into the page cache with an fsync at the end. The loop device
# reads and writes its image with direct I/O, so its requests wait for the disk under /tmp rather
# than for the page cache. Needs root (loop device, mount), fio, jq, curl and /usr/bin/prometheus.
# Everything it starts or makes (processes, mount, loop device, files) is removed when it ends,
# however it ends.
#
#   bench/exporter_burst_peak.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build/release}
cli="$build/vantorix-cli"
[[ -x $cli ]] || { echo "needs $cli" >&2; exit 1; }
for tool in fio jq curl /usr/bin/prometheus; do
  command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 1; }
done

work=$(mktemp -d /tmp/vantorix-burst.XXXXXX)
device=
mounted=0
server=
prometheus=
cleanup() {
  for pid in $prometheus $server; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  if ((mounted)); then umount "$work/mnt" || umount -l "$work/mnt" || true; fi
  [[ -z $device ]] || losetup -d "$device" || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# The value of an instant PromQL query at Unix time $2, or "none" when it has no result.
query() {
  curl -sf "http://127.0.0.1:$prometheus_port/api/v1/query" --data-urlencode "query=$1" --data-urlencode "time=$2" |
    jq -r '.data.result[0].value[1] // "none"'
}
# Field $1 (1-based) of the device's stat file.
stat_field() { awk -v f="$1" '{print $f}' "/sys/class/block/$name/stat"; }

truncate -s 512M "$work/volume.img"
mkfs.ext4 -q -F "$work/volume.img"
device=$(losetup --find --show --direct-io=on "$work/volume.img")
name=$(basename "$device")
mkdir "$work/mnt"
mount "$device" "$work/mnt"
mounted=1
# The file the burst writes is laid out first, so the burst writes data and no allocation.
fio --name=layout --filename="$work/mnt/burst" --size=128M --rw=write --bs=1M --direct=1 \
  --output="$work/layout.log" >/dev/null
sync

port=$(free_port)
"$cli" serve --listen "127.0.0.1:$port" --precision 100 --volume "$work/mnt" 2>"$work/serve.log" &
server=$!
for _ in $(seq 100); do curl -sf "http://127.0.0.1:$port/metrics" >/dev/null && break; sleep 0.1; done

prometheus_port=$(free_port)
cat >"$work/prometheus.yml" <<EOF
global:
  scrape_interval: 5s
  scrape_timeout: 4s
scrape_configs:
  - job_name: vantorix
    static_configs:
      - targets: ['127.0.0.1:$port']
EOF
/usr/bin/prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/tsdb" \
  --web.listen-address="127.0.0.1:$prometheus_port" 2>"$work/prometheus.log" &
prometheus=$!
for _ in $(seq 300); do curl -sf "http://127.0.0.1:$prometheus_port/-/ready" >/dev/null && break; sleep 0.1; done
selector="device=\"$name\""
for _ in $(seq 300); do
  [[ $(query "up{job=\"vantorix\"}" "$(date +%s.%N)") == 1 ]] && break
  sleep 0.1
done
echo "volume $device ($name) on $work/mnt; exporter pid $server, 100 ms sampling, port $port;" \
  "Prometheus $(/usr/bin/prometheus --version 2>&1 | awk 'NR == 1 {print $3}') pid $prometheus scraping every 5 s"

# One burst after a quiet stretch of two scrapes: fio's 4 KiB random writes for 1 s on the laid-out
# file, with the given options. Prints the burst's mean await from the stat file.
bursts=()  # "name start end" of each
burst() {  # name, fio options...
  local label=$1 writes0 time0 start end writes1 time1
  shift
  sleep 11
  writes0=$(stat_field 5); time0=$(stat_field 8); start=$(date +%s.%N)
  fio --name="$label" --filename="$work/mnt/burst" --size=128M --rw=randwrite --bs=4k --runtime=1 --time_based \
    "$@" --output-format=terse --output="$work/$label.log" >/dev/null
  end=$(date +%s.%N); writes1=$(stat_field 5); time1=$(stat_field 8)
  bursts+=("$label $start $end")
  awk -v l="$label" -v s="$start" -v e="$end" -v n="$((writes1 - writes0))" -v t="$((time1 - time0))" \
    'BEGIN {printf "burst %-9s %.3f to %.3f (%.2f s): %d writes completed in %d ms of write time, mean await %.3f ms (stat file)\n",
            l, s, e, e - s, n, t, t / n}'
}
# O_DIRECT at queue depth 32; then writes into the page cache and an fsync at the end, which sends
# the dirty pages to the device at once.
burst direct --direct=1 --ioengine=libaio --iodepth=32
burst writeback --end_fsync=1
sleep 11  # quiet again, so that the last burst's scrape and the next are stored
at=$(date +%s.%N)
first=${bursts[0]#* }
span=$(awk -v a="${first% *}" -v b="$at" 'BEGIN {printf "%d", b - a + 10}')

# Every scrape of the run: the peaks it carried, against the means Prometheus computes from the
# counters over the same scrape interval (the two samples in a 6 s window ending just after it).
mean_await="rate(vantorix_volume_write_time_seconds_total{$selector}[6s]) / rate(vantorix_volume_writes_completed_total{$selector}[6s])"
mean_depth="rate(vantorix_volume_io_time_weighted_seconds_total{$selector}[6s])"
printf '%-15s %-10s %-22s %-22s %-20s %-22s %s\n' "scrape at" "holds" "await peak s" "mean await s" "depth peak" \
  "mean depth" "intervals"
verdict=1
scrapes=$(curl -sf "http://127.0.0.1:$prometheus_port/api/v1/query" \
  --data-urlencode "query=vantorix_volume_writes_completed_total{$selector}[${span}s]" --data-urlencode "time=$at" |
  jq -r '.data.result[0].values[][0]')
previous=0
for t in $scrapes; do
  after=$(awk -v t="$t" 'BEGIN {printf "%.3f", t + 0.5}')
  peak=$(query "vantorix_volume_await_peak_seconds{$selector,direction=\"write\"}" "$after")
  mean=$(query "$mean_await" "$after")
  depth=$(query "vantorix_volume_queue_depth_peak{$selector}" "$after")
  depth_mean=$(query "$mean_depth" "$after")
  count=$(query "vantorix_volume_interval_await_seconds_count{$selector,direction=\"write\"}" "$after")
  # A scrape interval holds some of a burst when it began before the burst ended and ended after it began.
  holds=-
  for b in "${bursts[@]}"; do
    read -r label start end <<<"$b"
    if awk -v p="$previous" -v t="$t" -v s="$start" -v e="$end" 'BEGIN {exit !(p < e && t > s)}'; then holds=$label; fi
  done
  printf '%-15s %-10s %-22s %-22s %-20s %-22s %s\n' "$t" "$holds" "$peak" "$mean" "$depth" "$depth_mean" "$count"
  if [[ $holds != - ]] && ! awk -v p="$peak" -v m="$mean" 'BEGIN {exit !(p != "none" && m != "none" && p > m)}'; then
    verdict=0
  fi
  previous=$t
done
if ((verdict)); then
  echo "in every scrape interval holding a burst, the await peak is above the interval's mean await from the counters"
else
  echo "a scrape interval holding a burst shows no await peak above its mean await"
  exit 1
fi
