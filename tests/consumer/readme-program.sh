#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# readme-program.sh PAGE [LANGUAGE]: prints the program that it shows, in C++ (cpp) if nothing else is said.
exec awk -v begin="\`\`\`${2-cpp}" '$0 == begin { on = 1; next } /^```$/ { on = 0 } on' "$1"
