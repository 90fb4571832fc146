#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# gateway-app.sh BUILD COMPILER
#   Installs a build to a prefix of its own, copies the reference application out of the tree, builds the copy against that and
#   starts it.
# shellcheck source=tests/consumer/head.sh
. "$(dirname "$0")/head.sh"

build_copy_of apps/gateway-app
program=$(find "$work/build" -name gateway-app -type f)
"$program" --help | grep -q -- --cloud-host || fail "the copy does not start"
quietly cmake --install "$work/build" --prefix "$work/installed"
[ -x "$work/installed/bin/gateway-app" ] || fail "the copy installs no program"
