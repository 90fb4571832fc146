#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# test-kit.sh BUILD COMPILER
#   Installs a build to a prefix of its own, then builds and runs the project in test-kit/ against that.
# shellcheck source=tests/consumer/head.sh
. "$(dirname "$0")/head.sh"

"$tree/tests/consumer/test-kit/build-and-run" "$tree/tests/consumer/test-kit" "$work/prefix" "$compiler"
