#!/bin/sh
# Writes a manual page for PROGRAM from its own --help and --version (help2man), with the
# hand-written sections of INCLUDE and, for each SUBCOMMAND, that subcommand's --help.
#
#   manpage.sh PROGRAM "one-line description" INCLUDE OUTPUT [SUBCOMMAND...]
set -eu
program=$1 description=$2 include=$3 output=$4
shift 4
# The page is English whatever the builder's language.
export LANGUAGE=en_US.UTF-8 LANG=C.UTF-8 LC_ALL=C.UTF-8
unset DISPLAY WAYLAND_DISPLAY
sections=$(mktemp)
trap 'rm -f "$sections"' EXIT
cat "$include" >"$sections"
if [ $# -gt 0 ]; then
    printf '[SUBCOMMANDS]\n' >>"$sections"
    for sub in "$@"; do
        printf '.SS %s\n.nf\n' "$sub" >>"$sections"
        # Backslashes, and dots or quotes at the start of a line, would be read as roff.
        "$program" "$sub" --help | sed -e 's/\\/\\e/g' -e "s/^\\([.']\\)/\\\\\\&\\1/" >>"$sections"
        printf '.fi\n' >>"$sections"
    done
fi
help2man --no-info --no-discard-stderr --name="$description" --include="$sections" \
    --output="$output" "$program"
