#!/usr/bin/env bash
# The exporter on 8 loop volumes (ext4 images in a temporary folder), sampling every 10 ms:
#  1. its CPU share over SECONDS with a scrape a second (user + system time of the process over
#     wall time, from /proc), as a Prometheus server would scrape it;
#  2. the load run: 200 scrapers back to back and 100 slow clients for 30 s (bench/exporter_load.cpp),
#     with every scrape's answer checked, latency percentiles, CPU and peak resident memory;
#  3. 512 keep-alive connections that send a request every 7 to 8 s for 30 s, from this machine and
#     then from another loopback address, while curl scrapes once a second: how many curl answered.
# Needs root (loop devices) and a build with VANTORIX_BUILD_BENCHMARKS=ON. Everything it makes is
# removed when it ends, however it ends.
#
#   bench/run_exporter_bench.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
build=${1:-build/release}
seconds=${2:-60}
cli="$build/vantorix-cli"
load="$build/bench/vantorix_exporter_load"
[[ -x $cli && -x $load ]] || { echo "needs $cli and $load (VANTORIX_BUILD_BENCHMARKS=ON)" >&2; exit 1; }

work=$(mktemp -d /var/tmp/vantorix-exporter-bench.XXXXXX)
devices=()
server=
holders=
cleanup() {
  [[ -z $holders ]] || kill "$holders" 2>/dev/null || true
  [[ -z $server ]] || kill "$server" 2>/dev/null || true
  [[ -z $server ]] || wait "$server" 2>/dev/null || true
  for i in "${!devices[@]}"; do umount "$work/m$i" 2>/dev/null || true; losetup -d "${devices[$i]}" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

args=()
for i in 0 1 2 3 4 5 6 7; do
  truncate -s 64M "$work/i$i.img"
  mkfs.ext4 -q -F "$work/i$i.img"
  devices[$i]=$(losetup --find --show "$work/i$i.img")
  mkdir "$work/m$i"
  mount "${devices[$i]}" "$work/m$i"
  args+=(--volume "$work/m$i")
done
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$cli" serve --listen "127.0.0.1:$port" --precision 10 "${args[@]}" 2>"$work/serve.log" &
server=$!
for _ in $(seq 50); do curl -sf "http://127.0.0.1:$port/metrics" >/dev/null && break; sleep 0.1; done
volumes=$(curl -sf "http://127.0.0.1:$port/metrics" | sed -n 's/^vantorix_volumes //p')
echo "exporter pid $server on port $port, $volumes volumes, 10 ms sampling"

ticks() { sed 's/.*) //' "/proc/$server/stat" | awk '{print $12 + $13}'; }
hz=$(getconf CLK_TCK)
sleep 2
t0=$(ticks); w0=$(date +%s.%N)
end=$(( $(date +%s) + seconds ))
while (( $(date +%s) < end )); do curl -sf "http://127.0.0.1:$port/metrics" >/dev/null; sleep 1; done
t1=$(ticks); w1=$(date +%s.%N)
awk -v a="$t0" -v b="$t1" -v hz="$hz" -v w0="$w0" -v w1="$w1" \
  'BEGIN {printf "CPU at 10 ms on 8 volumes, a scrape a second: %.2f%% of one core over %.0f s\n", 100 * (b - a) / hz / (w1 - w0), w1 - w0}'

"$load" "$port" "$server" 30 200 100

for from in 127.0.0.1 127.0.0.2; do
  "$load" "$port" "$server" 33 0 0 512 "$from" &
  holders=$!
  sleep 2  # the holders connect and make their first requests
  answered=0
  for _ in $(seq 30); do
    curl -sf -m 5 -o /dev/null "http://127.0.0.1:$port/metrics" && answered=$((answered + 1))
    sleep 1
  done
  wait "$holders" || true
  holders=
  echo "curl once a second for 30 s beside 512 keep-alive connections from $from: $answered of 30 answered"
done
