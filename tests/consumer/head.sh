# shellcheck shell=sh
# SPDX-License-Identifier: Apache-2.0
# What the tests in this folder that install a build begin with; they are called with BUILD COMPILER. Afterwards the build is
# installed to $work/prefix, what that printed is in $work/log, and these are set: tree, build, compiler, work.
set -eu
export CMAKE_GENERATOR=Ninja # make need not be there

# shellcheck disable=SC2034  # for the tests
tree=$(cd "$(dirname "$0")/../.." && pwd) build=$1 compiler=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        fail "failed: $*"
    }
}
quietly cmake --install "$build" --prefix "$work/prefix"
# build_copy_of FOLDER: a folder of the tree, copied out of it to $work/copy and built against the installation in $work/build
build_copy_of() {
    cp -r "$tree/$1" "$work/copy"
    quietly cmake -S "$work/copy" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_PREFIX_PATH="$work/prefix"
    quietly cmake --build "$work/build" --parallel 2
    LD_LIBRARY_PATH=$(dirname "$(find "$work/prefix" -name libOrvStackSdk.so)")
    export LD_LIBRARY_PATH
}
