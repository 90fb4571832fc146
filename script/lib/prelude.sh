# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
# What each script begins with. Afterwards the working folder is the tree, and these are set:
#   tree                    the tree
#   ORV_TOOLS, ORV_CACHE    where unpacked programs and what is fetched are kept
#   ORV_REPORTS             where test reports go (JUnit XML), if anybody wants them
#   PYTHONPATH              with the testbed's package
set -euo pipefail

command_name=$(basename "$0")
command_file=$(readlink -f "$0")
tree=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$tree"
export ORV_TOOLS=${ORV_TOOLS:-$tree/build/tools}
export ORV_CACHE=${ORV_CACHE:-$tree/.cache}
export PYTHONPATH=$tree/testbed${PYTHONPATH:+:$PYTHONPATH}
not_run=77 # the exit status of what may not run here

say() { printf '%s: %s\n' "$command_name" "$*"; }
complain() { say "$@" >&2; }
fail() {
    complain "$@"
    exit 1
}
skip() {
    complain "not run: $*"
    exit $not_run
}

# The comment at the head of the script, without the licence and what is meant for shellcheck.
show_help() { sed -n '3,/^[^#]/{/^#/!d;/^# shellcheck/d;s/^# \?//;p}' "$command_file"; }
misused() {
    complain "$@"
    show_help >&2
    exit 2
}
# no_more_arguments "$@": for what is left over when all that is understood has been taken.
no_more_arguments() { [ $# -eq 0 ] || misused "no such argument: $1"; }
case ${1-} in
    -h | --help)
        show_help
        exit
        ;;
esac

# require_namespaces: tests that cannot have theirs fail instead of being skipped unseen; ORV_REQUIRE_NAMESPACES, set and
# empty, skips them.
require_namespaces() { export ORV_REQUIRE_NAMESPACES=${ORV_REQUIRE_NAMESPACES-1}; }

permits_namespaces() { # for tests: as root or as anybody
    unshare --mount --net true 2>/dev/null || unshare --user --map-root-user --mount --net true 2>/dev/null
}

# need_boxes: boxes need more than tests do. Their commands are many short programs in Python, and
# most of what one costs is to begin: a third of that is compiling the testbed.
need_boxes() {
    [ "$(id -u)" = 0 ] || skip "network namespaces need root"
    unshare --net --mount --uts true 2>/dev/null ||
        skip "this machine does not let us make namespaces (a container? start it with --privileged; a" \
        "chroot? first mount its root on itself)"
    [ ! -w testbed ] || PYTHONDONTWRITEBYTECODE='' /usr/bin/python3 -m compileall -q testbed/orv_testbed >/dev/null 2>&1 || true
}

# quietly LOG COMMAND...: what it prints is shown only if it fails.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 || {
        cat "$log" >&2
        return 1
    }
}

# build_preset PRESET [TARGET...]: configures where that has not been done. Scripts that run side by side take turns.
build_preset() {
    local preset=$1 targets=()
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    mkdir -p build
    (
        flock 9
        [ -e "build/$preset/CMakeCache.txt" ] || cmake --preset "$preset"
        cmake --build "build/$preset" "${targets[@]}"
    ) 9>"build/$preset.lock"
}

# have_programs PRESET TARGET...: programs in $ORV_BUILD. One of this tree's own builds is brought up to date; without
# ORV_BUILD that is the one of the preset.
have_programs() {
    local preset=$1 program
    shift
    ORV_BUILD=$(realpath -m "${ORV_BUILD:-build/$preset}")
    export ORV_BUILD
    if [ "${ORV_BUILD%/*}" = "$tree/build" ]; then
        quietly "build/programs-${ORV_BUILD##*/}.log" build_preset "${ORV_BUILD##*/}" "$@"
        return
    fi
    for program in "$@"; do
        [ -x "$ORV_BUILD/bin/$program" ] || fail "ORV_BUILD=$ORV_BUILD holds no bin/$program: build it there"
    done
}

# run_ctest PRESET [ARGUMENT...]: the emulator and ThreadSanitizer are slow to start a program, so they run tests in few
# processes. Elsewhere each has one of its own, and a test that needs another one before it fails.
run_ctest() {
    local preset=$1
    shift
    case $preset$* in mipsel-release-j* | tsan) export ORV_TESTS_TOGETHER=1 ;; esac
    [ -z "${ORV_REPORTS-}" ] || set -- --output-junit "$ORV_REPORTS/ctest.xml" "$@"
    # Most tests wait: for a broker, a time limit, a process.
    ctest --preset "$preset" -j"${ORV_TEST_JOBS:-$((2 * $(nproc)))}" "$@"
}

# start_on_port MODULE [ARGUMENT...]: starts a program of the testbed that prints its port once it is ready, and sets $port
# and $started_pid, which its user ends.
# shellcheck disable=SC2034  # for its user
start_on_port() {
    local said
    exec {said}< <(exec /usr/bin/python3 -B -m "$@")
    started_pid=$!
    read -r port <&"$said" || fail "$1 does not start"
    exec {said}<&-
}

run_pytest() {
    [ -z "${ORV_REPORTS-}" ] || set -- --junitxml "$ORV_REPORTS/pytest.xml" "$@"
    /usr/bin/python3 -B -m pytest -q -p no:cacheprovider "$@"
}
