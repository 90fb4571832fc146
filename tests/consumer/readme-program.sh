#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# readme-program.sh README: prints the program that it shows.
exec awk '/^```cpp$/ { on = 1; next } /^```$/ { on = 0 } on' "$1"
