#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# manual-test.sh PROGRAM PAGE
#   The manual names every option that the program's help names, and none besides.
set -eu
options() { grep -oE -- '--[a-z][a-z-]*' | sort -u; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$1" --help | grep -E "^ +-" | options >"$work/help"
[ -s "$work/help" ] || { echo "manual-test: $1 --help names no option" >&2; exit 1; }
# Only the options' own headings: examples may name those of other programs.
sed 's/\\-/-/g' "$2" | awk '/^\.SH/ { in_options = $2 == "OPTIONS" } /^\.TP/ { heading = 1; next } in_options && heading { print } { heading = 0 }' |
    options >"$work/manual"
diff -u "$work/help" "$work/manual" || { echo "manual-test: the help (-) and the manual (+) of $1 differ" >&2; exit 1; }
