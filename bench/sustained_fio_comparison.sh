#!/usr/bin/env bash
# Side-by-side: the sustained-write test against fio writing the same file the same way, in the
# same folder, median of three runs of each.
#
#   bench/sustained_fio_comparison.sh BUILD_DIR FOLDER SIZE_MIB [RUNS]
#
# Both sides write SIZE_MIB MiB sequentially into a new file with direct I/O on io_uring, in 1 MiB
# blocks eight deep: `vantorix-cli bench --profile sustained --payload-bytes` against
# fio --rw=write --bs=1M --iodepth=8 --direct=1 --ioengine=io_uring. Ours is its average speed
# (bytes over the time from the first write to the last completion), fio's its write bandwidth
# over the job. The sides take turns at going first, each after a flush of the file system and a
# moment's rest, so neither pays for the other's writes. Prints both medians and ours / fio.
set -euo pipefail
build=${1:-build/release}
folder=${2:?"a folder on the volume to test"}
size_mib=${3:-2048}
runs=${4:-3}
cli="$build/vantorix-cli"
[[ -x $cli ]] || { echo "no $cli; build first" >&2; exit 1; }
command -v fio >/dev/null && command -v jq >/dev/null || { echo "needs fio and jq (scripts/setup)" >&2; exit 1; }
bytes=$(( size_mib * 1048576 ))

work=$(mktemp -d)
trap 'rm -rf "$work"; rm -f "$folder/fio-sustained"' EXIT

settle() { sync -f "$folder"; sleep 1; }
median() { sort -g | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2}'; }

run_ours() {
  echo "run $1/$runs: vantorix" >&2
  settle
  "$cli" bench "$folder" --profile sustained --json --payload-bytes "$bytes" 2>/dev/null \
    | jq '.sustained.averageBytesPerSecond' >>"$work/ours"
  rm -f "$folder"/Vantorix-Performance-*.html
}

run_fio() {
  echo "run $1/$runs: fio" >&2
  settle
  rm -f "$folder/fio-sustained"
  fio --name=sustained --filename="$folder/fio-sustained" --rw=write --bs=1M --iodepth=8 --direct=1 \
      --ioengine=io_uring --size="$bytes" --output-format=json | jq '.jobs[0].write.bw_bytes' >>"$work/fio"
  rm -f "$folder/fio-sustained"
}

for ((i = 1; i <= runs; i++)); do
  if ((i % 2)); then run_ours "$i"; run_fio "$i"; else run_fio "$i"; run_ours "$i"; fi
done

ours=$(median <"$work/ours")
theirs=$(median <"$work/fio")
echo "size: $size_mib MiB, runs: $runs"
echo "vantorix sustained write, median: $(awk -v b="$ours" 'BEGIN {printf "%.1f MB/s", b / 1e6}')  ($(paste -sd' ' "$work/ours"))"
echo "fio io_uring QD8 1 MiB, median:   $(awk -v b="$theirs" 'BEGIN {printf "%.1f MB/s", b / 1e6}')  ($(paste -sd' ' "$work/fio"))"
awk -v a="$ours" -v b="$theirs" 'BEGIN {printf "ours / fio: %.3f (target >= 0.95)\n", a / b}'
