#!/bin/bash
# A performance test stopped on a nearly full volume and started again at once must find the space
# the stopped run gave back. On a 200 MiB ext4 loop volume filled until its free space is the
# payload plus 2 MiB, each kind of test (standard, --direct, --profile deep) is stopped with SIGINT
# after 1.5 s and started again at once, twice per kind. Every second run must pass and leave
# only its report (no Vantorix_IO_* file); the stopped one must end with status 130.
#
#   sudo bench/full_volume_rerun.sh [path/to/vantorix-cli]
#
# PAYLOAD (bytes, default 96000000) and ROUNDS (default 2) may be set in the environment.
# Prints one line per attempt and a summary; exits 1 when an attempt failed.
set -u

CLI=$(realpath "${1:-build/dev/vantorix-cli}")
PAYLOAD=${PAYLOAD:-96000000}
ROUNDS=${ROUNDS:-2}
[ "$(id -u)" = 0 ] || { echo "needs root (loop device, mount)" >&2; exit 2; }
[ -x "$CLI" ] || { echo "no command-line program at $CLI" >&2; exit 2; }

work=$(mktemp -d /tmp/vantorix-full-volume-XXXXXX)
mnt=$work/mnt
device=
cleanup() {
    mountpoint -q "$mnt" && umount "$mnt"
    [ -n "$device" ] && losetup -d "$device"
    rm -rf "$work"
}
trap cleanup EXIT

mkdir "$mnt"
truncate -s 200M "$work/image.ext4"
mkfs.ext4 -q -F -L VTXFULL "$work/image.ext4"
device=$(losetup --find --show "$work/image.ext4")
mount "$device" "$mnt"

free_bytes() { echo $(( $(stat -f -c '%a * %S' "$mnt") )); }
filler=$(( $(free_bytes) - PAYLOAD - 2 * 1048576 ))
fallocate -l "$filler" "$mnt/filler"
sync -f "$mnt"
echo "volume: 200 MiB ext4 on $device; payload $PAYLOAD bytes; free $(free_bytes) bytes (payload + $(( $(free_bytes) - PAYLOAD )))"

export LANGUAGE=en_US
failures=0
for kind in standard direct deep; do
    case $kind in
        # At 1.5 s each test is past laying out its first file, the whole payload's size here.
        standard) options=(--random-seconds 1) ;;
        direct) options=(--direct --random-seconds 1) ;;
        deep) options=(--profile deep --seconds 0.5) ;;
    esac
    for round in $(seq "$ROUNDS"); do
        timeout --preserve-status -s INT 1.5 "$CLI" bench "$mnt" --payload-bytes "$PAYLOAD" "${options[@]}" 2>"$work/first.err" >/dev/null
        first=$?
        where=$(grep -E '^(Random|Sequential|Preparing|SEQ|RND)' "$work/first.err" | tail -1 | cut -c1-40)
        start=$(date +%s.%N)
        "$CLI" bench "$mnt" --payload-bytes "$PAYLOAD" "${options[@]}" 2>"$work/second.err" >/dev/null
        second=$?
        seconds=$(echo "$(date +%s.%N) - $start" | bc)
        leftovers=$(find "$mnt" -maxdepth 1 -name 'Vantorix_IO_*' | wc -l)
        reports=$(find "$mnt" -maxdepth 1 -name 'Vantorix-Performance-*.html' | wc -l)
        verdict=pass
        # 130: stopped by the signal after removing its files.
        if [ "$first" != 130 ] || [ "$second" != 0 ] || [ "$leftovers" != 0 ] || [ "$reports" != 1 ]; then
            verdict=FAIL
            failures=$((failures + 1))
        fi
        printf '%-8s round %s: stopped run exit %s (last progress "%s"), next run exit %s in %.1f s, test files left %s, reports %s: %s\n' \
            "$kind" "$round" "$first" "$where" "$second" "$seconds" "$leftovers" "$reports" "$verdict"
        [ "$verdict" = pass ] || sed 's/^/    /' "$work/second.err"
        # The next round starts from the same free space.
        rm -f "$mnt"/Vantorix-Performance-*.html
        sync -f "$mnt"
    done
done
echo "$(( 3 * ROUNDS - failures )) of $(( 3 * ROUNDS )) runs after a stop passed"
[ "$failures" = 0 ]
