#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# test-kit.sh BUILD COMPILER
#   Installs a build to a prefix of its own, then builds and runs the project in test-kit/ against that.
set -eu
export CMAKE_GENERATOR=Ninja # make need not be there

tree=$(cd "$(dirname "$0")/../.." && pwd)
build=$1
compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "test-kit.sh: $*" >&2
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        fail "failed: $*"
    }
}
quietly cmake --install "$build" --prefix "$work/prefix"
"$tree/tests/consumer/test-kit/build-and-run" "$tree/tests/consumer/test-kit" "$work/prefix" "$compiler"
