#!/bin/sh
# CPU cost of monitoring at 1 ms: runs `vantorix-cli monitor` at 1 ms for SECONDS (default 60),
# for comparison the least any process needs to wake every millisecond on this machine
# (bench/timerfd_floor.c), and, when the build has the desktop application and xvfb-run is
# installed, `vantorix --precision 1 --monitor PATH` on a virtual display for as long once it has
# started. Prints each as a percentage of one core (user + system time over wall time), then the
# ratios to the floor. The desktop application is measured twice: with the volume idle, and while
# fio writes 50 MB/s to it (64 KiB blocks, O_DIRECT, into a file in PATH that is removed after),
# the steady traffic under which every frame of the graph changes.
#
#   bench/monitor_cpu.sh [build-dir] [seconds] [path]
set -eu
build=${1:-build/release}
seconds=${2:-60}
path=${3:-/}
here=$(dirname "$0")
cli="$build/vantorix-cli"
desktop="$build/vantorix"
[ -x "$cli" ] || { echo "no $cli; build it first" >&2; exit 1; }

device=$("$cli" info "$path" --json 2>/dev/null | sed -n 's/.*"device": "\([^"]*\)".*/\1/p')
tmp=$(mktemp -d)
load="$path/vantorix-cpu-load.dat"
trap 'pkill -P $$ fio 2>/dev/null; rm -rf "$tmp"; rm -f "$load"' EXIT
cc -O2 -o "$tmp/floor" "$here/timerfd_floor.c"

# Prints "P% of one core (user U s, sys S s, wall W s)" and leaves P in $tmp/percent.
report() {  # user sys wall
    awk -v u="$1" -v s="$2" -v w="$3" -v out="$tmp/percent" 'BEGIN {
        p = 100 * (u + s) / w
        printf "%.1f%% of one core (user %.2f s, sys %.2f s, wall %.1f s)\n", p, u, s, w
        printf "%.4f\n", p > out
    }'
}

percent() {  # command...: runs it to its end
    /usr/bin/time -f "%U %S %e" -o "$tmp/time" "$@" >/dev/null 2>&1
    report $(cat "$tmp/time")
}

# The desktop application runs until it is told to stop, under xvfb-run, which also starts the
# X server. Its CPU (the application's process alone) is read from /proc once it has had 5 s to
# start, show its window and begin monitoring, and again SECONDS later, just before SIGTERM.
cpu_ticks() {  # pid: "utime stime" in clock ticks, counted from the state after the command name
    sed 's/.*) //' "/proc/$1/stat" | cut -d' ' -f12,13
}

desktop_percent() {
    xvfb-run -a "$desktop" --precision 1 --monitor "$path" >/dev/null 2>&1 &
    runner=$!
    app=
    for _ in $(seq 100); do
        app=$(pgrep -P "$runner" -x vantorix || true)
        [ -n "$app" ] && break
        sleep 0.1
    done
    if [ -z "$app" ]; then
        kill "$runner" 2>/dev/null || true
        echo "did not start"
        return 1
    fi
    sleep 5
    before=$(cpu_ticks "$app") since=$(cut -d' ' -f1 /proc/uptime)
    sleep "$seconds"
    after=$(cpu_ticks "$app") now=$(cut -d' ' -f1 /proc/uptime)
    kill -TERM "$app"
    wait "$runner" || true
    report $(echo "$before $after" | awk -v hz="$(getconf CLK_TCK)" -v wall="$(awk -v a="$since" -v b="$now" 'BEGIN { print b - a }')" \
                 '{ print ($3 - $1) / hz, ($4 - $2) / hz, wall }')
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2fx", a / b }'; }

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
printf 'vantorix-cli monitor %s --precision 1 --duration %s: ' "$path" "$seconds"
percent "$cli" monitor "$path" --precision 1 --duration "$seconds" --json
cli_percent=$(cat "$tmp/percent")
printf 'timerfd floor (1 ms epoll + pread of %s stat): ' "$device"
percent "$tmp/floor" "$seconds" "/sys/class/block/$device/stat"
floor_percent=$(cat "$tmp/percent")
ratios="cli/floor $(ratio "$cli_percent" "$floor_percent")"
if [ -x "$desktop" ] && command -v xvfb-run >/dev/null 2>&1; then
    printf 'vantorix --precision 1 --monitor %s (xvfb-run, %s s, idle): ' "$path" "$seconds"
    if desktop_percent; then
        ratios="$ratios, idle desktop/floor $(ratio "$(cat "$tmp/percent")" "$floor_percent")"
    fi
    if command -v fio >/dev/null 2>&1; then
        fio --name=load --filename="$load" --size=256M --rw=write --bs=64k --rate=50m --direct=1 \
            --ioengine=libaio --time_based --runtime=$((seconds + 30)) --output=/dev/null &
        fio_pid=$!
        printf 'vantorix --precision 1 --monitor %s (xvfb-run, %s s, fio writing 50 MB/s): ' "$path" "$seconds"
        if desktop_percent; then
            ratios="$ratios, busy desktop/floor $(ratio "$(cat "$tmp/percent")" "$floor_percent")"
        fi
        kill "$fio_pid" 2>/dev/null || true
        wait "$fio_pid" 2>/dev/null || true
        rm -f "$load"
    fi
fi
echo "ratios: $ratios"
