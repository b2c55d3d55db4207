#!/usr/bin/env bash
# Side-by-side: the queued direct-I/O engine (io_uring) against fio with the same parameters on
# the same file, median of RUNS runs of each.
#
#   bench/run_fio_comparison_direct.sh [BUILD_DIR] [FOLDER] [SIZE_BYTES] [SECONDS] [RUNS]
#
# Defaults: build/release, /var/tmp/vantorix-fio-direct, 1 GiB, 5 s, 3 runs. Needs a build with
# VANTORIX_BUILD_BENCHMARKS=ON (bench/vantorix_queued_io_bench), fio and jq.
#
# One file of SIZE_BYTES is laid out once (a sequential write of random data) and every job runs
# over all of it, time-based for SECONDS, with O_DIRECT: sequential 1 MiB at queue depth 8 and 1,
# random 4 KiB at depth 32 and 1, each read and written. fio runs its io_uring engine; its random
# offsets are drawn afresh every run and with replacement (randrepeat=0, norandommap) as the
# engine's are, so neither side reads blocks a cache below the file system kept from the run
# before. Within a run the two sides take turns per job, the one going first alternating between
# runs. Everything the script makes is removed when it ends, however it ends.
set -euo pipefail
build=${1:-build/release}
folder=${2:-/var/tmp/vantorix-fio-direct}
size=${3:-1073741824}
seconds=${4:-5}
runs=${5:-3}
bench="$build/bench/vantorix_queued_io_bench"
[[ -x $bench ]] || { echo "no $bench; build with -DVANTORIX_BUILD_BENCHMARKS=ON first" >&2; exit 1; }
if ! command -v fio >/dev/null || ! command -v jq >/dev/null; then echo "needs fio and jq (scripts/setup)" >&2; exit 1; fi

madeFolder=0
if [[ ! -d $folder ]]; then
  mkdir -p "$folder"
  madeFolder=1
fi
work=$(mktemp -d)
file="$folder/vantorix-fio-direct-$$.dat"
cleanup() {
  rm -rf "$work"
  rm -f "$file"
  if ((madeFolder)); then rmdir "$folder" 2>/dev/null || true; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# name, pattern, direction, block size, queue depth, fio --rw, fio --bs, reported figure
jobs=(
  "seq-read-1m-qd8    sequential read  1048576 8  read      1m throughput"
  "seq-write-1m-qd8   sequential write 1048576 8  write     1m throughput"
  "seq-read-1m-qd1    sequential read  1048576 1  read      1m throughput"
  "seq-write-1m-qd1   sequential write 1048576 1  write     1m throughput"
  "rand-read-4k-qd32  random     read  4096    32 randread  4k iops"
  "rand-write-4k-qd32 random     write 4096    32 randwrite 4k iops"
  "rand-read-4k-qd1   random     read  4096    1  randread  4k iops"
  "rand-write-4k-qd1  random     write 4096    1  randwrite 4k iops"
)

median() { sort -g | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2}'; }

# Writes leave the layers below busy for a while (a virtual disk's host flushing its cache, a loop
# device's backing file): every measurement starts after a flush of the file system and a moment's
# rest, so neither side pays for the other's writes.
settle() { sync -f "$file"; sleep 1; }
ours() {  # name pattern direction blockSize depth run
  settle
  "$bench" "$file" --size "$size" --pattern "$2" --direction "$3" --block-size "$4" --depth "$5" \
      --seconds "$seconds" >"$work/ours-$1-$6.json"
}
theirs() {  # name rw bs depth run
  settle
  fio --name="$1" --filename="$file" --ioengine=io_uring --direct=1 --iodepth="$4" --rw="$2" --bs="$3" \
      --size="$size" --time_based --runtime="$seconds" --randrepeat=0 --norandommap \
      --output-format=json >"$work/fio-$1-$5.json"
}

"$bench" "$file" --size "$size" --layout-only
for ((run = 1; run <= runs; run++)); do
  for job in "${jobs[@]}"; do
    read -r name pattern direction blockSize depth rw bs _ <<<"$job"
    echo "run $run/$runs: $name" >&2
    if ((run % 2)); then
      ours "$name" "$pattern" "$direction" "$blockSize" "$depth" "$run"
      theirs "$name" "$rw" "$bs" "$depth" "$run"
    else
      theirs "$name" "$rw" "$bs" "$depth" "$run"
      ours "$name" "$pattern" "$direction" "$blockSize" "$depth" "$run"
    fi
  done
done

row() {  # figure unit ours fio
  printf '%-22s %-6s %14.0f %14.0f %8.3f\n' "$1" "$2" "$3" "$4" "$(awk -v a="$3" -v b="$4" 'BEGIN {print a / b}')"
}
extraRows=()

figure() {  # name kind side
  local key selector
  if [[ $3 == ours ]]; then
    [[ $2 == iops ]] && key=.iops || key=.bytesPerSecond
    for f in "$work"/ours-"$1"-*.json; do jq -r "$key" "$f"; done | median
  else
    [[ $2 == iops ]] && key=iops || key=bw_bytes
    selector="(.jobs[0].read.$key + .jobs[0].write.$key)"
    for f in "$work"/fio-"$1"-*.json; do jq -r "$selector" "$f"; done | median
  fi
}

# The product's own path: `vantorix-cli bench --profile deep` lays out its own test file of the same
# size in the same folder and runs the same eight jobs; its medians are held against fio's above.
# (The standard test with --direct is compared by bench/run_fio_comparison.sh ... direct.)
cli="$build/vantorix-cli"
if [[ -x $cli ]]; then
  for ((run = 1; run <= runs; run++)); do
    echo "run $run/$runs: vantorix-cli bench --profile deep" >&2
    sync -f "$folder"; sleep 1
    "$cli" bench "$folder" --profile deep --seconds "$seconds" --payload-bytes "$size" --json 2>/dev/null \
        >"$work/cli-$run.json"
    report=$(jq -r '.reportPath // empty' "$work/cli-$run.json")
    [[ -z $report ]] || rm -f "$report"
  done
  cliFigure() {  # profile key
    for f in "$work"/cli-*.json; do jq -r --arg p "$1" ".queueDepth[] | select(.profile == \$p) | .$2" "$f"; done | median
  }
  for job in "${jobs[@]}"; do
    read -r name pattern direction _ depth _ _ kind <<<"$job"
    if [[ $pattern == sequential ]]; then profile="SEQ1M Q${depth}T1"; else profile="RND4K Q${depth}T1"; fi
    if [[ $kind == throughput ]]; then
      a=$(cliFigure "$profile" "${direction}BytesPerSecond")
      b=$(figure "$name" throughput fio)
      extraRows+=("$(row "cli-$name" MB/s "$(awk -v v="$a" 'BEGIN {print v / 1e6}')" "$(awk -v v="$b" 'BEGIN {print v / 1e6}')")")
    else
      a=$(cliFigure "$profile" "${direction}IOPS")
      extraRows+=("$(row "cli-$name" IOPS "$a" "$(figure "$name" iops fio)")")
    fi
  done
fi


echo "file of $size bytes in $folder ($(findmnt -no FSTYPE,SOURCE -T "$folder")), ${seconds} s per job," \
     "median of $runs runs"
printf '%-22s %-6s %14s %14s %8s\n' "figure" "unit" "ours" "fio" "ours/fio"
for job in "${jobs[@]}"; do
  read -r name _ _ _ _ _ _ kind <<<"$job"
  a=$(figure "$name" "$kind" ours)
  b=$(figure "$name" "$kind" fio)
  if [[ $kind == throughput ]]; then
    row "$name" MB/s "$(awk -v v="$a" 'BEGIN {print v / 1e6}')" "$(awk -v v="$b" 'BEGIN {print v / 1e6}')"
  else
    row "$name" IOPS "$a" "$b"
  fi
done
((${#extraRows[@]} == 0)) || printf '%s\n' "${extraRows[@]}"
