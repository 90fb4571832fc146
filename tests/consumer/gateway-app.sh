#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# gateway-app.sh BUILD COMPILER
#   Installs a build to a prefix of its own, copies the reference application out of the tree, builds the copy against that and
#   starts it.
# shellcheck source=tests/consumer/head.sh
. "$(dirname "$0")/head.sh"

cp -r "$tree/apps/gateway-app" "$work/copy"
quietly cmake -S "$work/copy" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$work/prefix"
quietly cmake --build "$work/build" --parallel 2
LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libOrvStackSdk.so)")
export LD_LIBRARY_PATH
program=$(find "$work/build" -name gateway-app -type f)
"$program" --help | grep -q -- --cloud-host || fail "the copy does not start"
quietly cmake --install "$work/build" --prefix "$work/installed"
[ -x "$work/installed/bin/gateway-app" ] || fail "the copy installs no program"
