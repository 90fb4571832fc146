#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# without-simulation.sh SHELL
#   Where the test kit is not installed, orv-shell --simulate says so and names the package.
set -eu

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cp "$1" "$folder/orv-shell"
status=0
PATH=/nowhere "$folder/orv-shell" --simulate 2>"$folder/said" </dev/null || status=$?
expected='orv-shell: orv-simulate cannot be run (No such file or directory): it comes with the test kit, in the package liborvstacksdk-test-dev'
if [ "$status" != 1 ] || [ "$(cat "$folder/said")" != "$expected" ]; then
    echo "it ends with $status and says: $(cat "$folder/said")" >&2
    exit 1
fi
