#!/usr/bin/env bash
# Side-by-side: the performance test engine against fio with the same parameters, on the same
# file system, median of three runs of each.
#
#   bench/run_fio_comparison.sh [BUILD_DIR] [FOLDER] [PAYLOAD_BYTES] [RUNS] [buffered|direct]
#
# Both sides: synchronous pread/pwrite (fio's psync engine), queue depth 1, buffered I/O, no cache
# invalidation; random 4 KiB writes then reads for 5 s each over a working set of
# min(payload, 512 MiB), at any byte offset (fio: blockalign=1), on a file extended with
# ftruncate; then a sequential write of the payload in 16 MiB blocks into a new file and a
# sequential read of it. Writes end with an fsync that is timed with them. The engine runs
# through `vantorix-cli bench --json` with the payload given in bytes.
#
# With "direct" both sides bypass the page cache: `vantorix-cli bench --direct` against fio
# --direct=1, offsets on 4 KiB boundaries, the random file written in full before the random
# writes (fio --overwrite=1; the engine lays out its working set the same way), and zeros in the
# sequential write on both sides. The payload is rounded down to whole 4 KiB blocks for both.
# Direct reads and writes reach the disk, where the state the previous phase left (a virtual
# disk's host cache, the flash translation layer) moves the next phase's figure a lot. So in this
# mode fio runs the four phases as one job file in the engine's order, without gaps, and removes
# the random file before the sequential phases as the engine does; create_on_open keeps fio from
# laying out the sequential file in advance, so its write allocates a new file as the engine's
# does. The two sides take turns at going first.
set -euo pipefail
build=${1:-build/release}
folder=${2:-/var/tmp/vantorix-fio-comparison}
payload=${3:-1000000000}
runs=${4:-3}
mode=${5:-buffered}
cli="$build/vantorix-cli"
[[ -x $cli ]] || { echo "no $cli; build first" >&2; exit 1; }
command -v fio >/dev/null && command -v jq >/dev/null || { echo "needs fio and jq (scripts/setup)" >&2; exit 1; }

mkdir -p "$folder"
work=$(mktemp -d)
trap 'rm -rf "$work"; rm -f "$folder"/fio-random "$folder"/fio-sequential' EXIT
ours_flags=()
random_flags=(--blockalign=1)
sequential_flags=()
direct=0
if [[ $mode == direct ]]; then
  payload=$(( payload / 4096 * 4096 ))
  ours_flags=(--direct)
  random_flags=(--blockalign=4k --overwrite=1)
  sequential_flags=(--zero_buffers)
  direct=1
fi
workingSet=$(( payload < 536870912 ? payload : 536870912 ))
common=(--ioengine=psync --iodepth=1 --direct=$direct --invalidate=0 --randrepeat=0 --norandommap
        --fallocate=none --output-format=json --group_reporting)
# The engine's large buffers are made of huge pages where the kernel has them; FIO_MEM=shmhuge gives
# fio the same (it needs reserved huge pages: /proc/sys/vm/nr_hugepages).
[[ -z ${FIO_MEM:-} ]] || common+=(--mem="$FIO_MEM")

# Writes leave the layers below busy for a while (a virtual disk's host flushing): each side starts
# after a flush of the file system and a moment's rest, so neither pays for the other's writes.
settle() { sync -f "$folder"; sleep 1; }

median() { sort -g | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2}'; }

run_ours() {
  echo "run $1/$runs: vantorix" >&2
  settle
  "$cli" bench "$folder" --json --payload-bytes "$payload" "${ours_flags[@]}" 2>/dev/null >"$work/ours-$1.json"
  rm -f "$folder"/Vantorix-Performance-*.html
}

run_fio() {
  local i=$1
  echo "run $i/$runs: fio" >&2
  settle
  rm -f "$folder/fio-random" "$folder/fio-sequential"
  if ((direct)); then
    fio "${common[@]}" --output="$work/fio-all-$i.json" \
        --name=rw --stonewall --filename="$folder/fio-random" --rw=randwrite --bs=4k "${random_flags[@]}" \
            --size="$workingSet" --time_based --runtime=5 --end_fsync=1 \
        --name=rr --stonewall --filename="$folder/fio-random" --rw=randread --bs=4k "${random_flags[@]}" \
            --size="$workingSet" --time_based --runtime=5 --unlink=1 \
        --name=sw --stonewall --create_on_open=1 --filename="$folder/fio-sequential" --rw=write --bs=16M --size="$payload" --zero_buffers --end_fsync=1 \
        --name=sr --stonewall --create_on_open=1 --filename="$folder/fio-sequential" --rw=read --bs=16M --size="$payload" \
            --unlink=1 >/dev/null
    local k=0 job
    for job in rw rr sw sr; do jq "{jobs: [.jobs[$k]]}" "$work/fio-all-$i.json" >"$work/fio-$job-$i.json"; k=$((k + 1)); done
  else
    fio "${common[@]}" --name=randwrite --filename="$folder/fio-random" --rw=randwrite --bs=4k "${random_flags[@]}" \
        --size="$workingSet" --time_based --runtime=5 --end_fsync=1 >"$work/fio-rw-$i.json"
    fio "${common[@]}" --name=randread --filename="$folder/fio-random" --rw=randread --bs=4k "${random_flags[@]}" \
        --size="$workingSet" --time_based --runtime=5 >"$work/fio-rr-$i.json"
    fio "${common[@]}" --name=write --filename="$folder/fio-sequential" --rw=write --bs=16M --size="$payload" "${sequential_flags[@]}" \
        --end_fsync=1 >"$work/fio-sw-$i.json"
    fio "${common[@]}" --name=read --filename="$folder/fio-sequential" --rw=read --bs=16M --size="$payload" \
        >"$work/fio-sr-$i.json"
    rm -f "$folder/fio-random" "$folder/fio-sequential"
  fi
}

for ((i = 1; i <= runs; i++)); do
  if ((direct && i % 2 == 0)); then run_fio "$i"; run_ours "$i"; else run_ours "$i"; run_fio "$i"; fi
done

ours() { for f in "$work"/ours-*.json; do jq -r "$1" "$f"; done | median; }
theirs() { for f in "$work"/fio-"$1"-*.json; do jq -r "$2" "$f"; done | median; }

ours_rw=$(ours .randomWriteIOPS);   fio_rw=$(theirs rw '.jobs[0].write.iops')
ours_rr=$(ours .randomReadIOPS);    fio_rr=$(theirs rr '.jobs[0].read.iops')
ours_sw=$(ours .writeThroughput);   fio_sw=$(theirs sw '.jobs[0].write.bw_bytes')
ours_sr=$(ours .readThroughput);    fio_sr=$(theirs sr '.jobs[0].read.bw_bytes')

echo "$mode I/O, payload $payload bytes, folder $folder ($(findmnt -no FSTYPE,SOURCE -T "$folder")), median of $runs runs"
printf '%-28s %16s %16s %8s\n' "measure" "vantorix" "fio" "ratio"
row() { printf '%-28s %16.0f %16.0f %8.3f\n' "$1" "$2" "$3" "$(awk -v a="$2" -v b="$3" 'BEGIN {print a / b}')"; }
row "random 4 KiB write IOPS" "$ours_rw" "$fio_rw"
row "random 4 KiB read IOPS" "$ours_rr" "$fio_rr"
row "sequential write B/s" "$ours_sw" "$fio_sw"
row "sequential read B/s" "$ours_sr" "$fio_sr"
# Every run's figures, in run order, for judging the spread behind the medians.
echo "per run (vantorix | fio):"
for key in "randomWriteIOPS rw .jobs[0].write.iops" "randomReadIOPS rr .jobs[0].read.iops" \
           "writeThroughput sw .jobs[0].write.bw_bytes" "readThroughput sr .jobs[0].read.bw_bytes"; do
  read -r ourKey job fioKey <<<"$key"
  printf '  %-16s' "$ourKey"
  for ((i = 1; i <= runs; i++)); do printf ' %.4g' "$(jq -r ".$ourKey" "$work/ours-$i.json")"; done
  printf ' |'
  for ((i = 1; i <= runs; i++)); do printf ' %.4g' "$(jq -r "$fioKey" "$work/fio-$job-$i.json")"; done
  echo
done
