#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# examples.sh BUILD COMPILER
#   Installs a build to a prefix of its own, copies the examples out of the tree, builds the copy against that and starts those
#   that say how they are called.
# shellcheck source=tests/consumer/head.sh
. "$(dirname "$0")/head.sh"

build_copy_of apps/examples
for program in settings led-driver name-server-guard modem-data; do
    ! "$work/build/$program" --help 2>"$work/said" || fail "$program knows no --help, but accepts it"
    grep -q "^usage: $program" "$work/said" || fail "the copy of $program says: $(cat "$work/said")"
done
[ -x "$work/build/first-steps-c" ] || fail "the copy has no program in C"
