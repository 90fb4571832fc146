#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# manuals.sh SHELL SIMULATION
#   The manuals and the completion have the options of the programs, and no others. The shell's manual says of each command
#   what its help says.
set -euo pipefail

folder=$(cd "$(dirname "$0")/.." && pwd)
fail() {
    echo "manuals.sh: $*" >&2
    exit 1
}
options() { grep -oE -- '(^|[ ,"'\''=])--[a-z-]+' | grep -oE -- '--[a-z-]+' | LC_ALL=C sort -u; }
manual() { sed 's/\\-/-/g' "$folder/$1.1"; }

# shellcheck source=apps/orv-shell/orv-shell.completion
. "$folder/orv-shell.completion"
for program in "$1" "$2"; do
    name=$(basename "$program")
    known=$("$program" --help | sed -n '/^Options:/,/^Commands:/p' | grep -E '^ +-' | options)
    diff <(echo "$known") <(manual "$name" | sed -n '/^.SH OPTIONS/,/^.SH [C-Z]/p' | grep '^\.B' | options) ||
        fail "$name.1 has other options than $name --help (<: in the help)"
    # shellcheck disable=SC2034  # the completion reads them
    COMP_WORDS=("$name" --) COMP_CWORD=1 COMPREPLY=()
    _orv_shell
    diff <(echo "$known") <(printf '%s\n' "${COMPREPLY[@]}" | options) ||
        fail "$name completes other options than $name --help has (<: in the help)"
done

commands() { # of the help, one a line: usage, a tab, summary
    "$1" --help | sed -n '/^Commands:/,/^\[S\]:/p' | sed '1d;$d' |
        awk '/^  [^ ]/ {if (line) print line; sub(/^  /, ""); if (!sub(/  +/, "\t")) $0 = $0 "\t"; line = $0; next}
             {sub(/^ +/, ""); line = line (line ~ /\t$/ ? "" : " ") $0} END {print line}'
}
in_manual() { # the same
    manual orv-shell | sed -n '/^.SH COMMANDS/,/^.SH EXIT/p' |
        awk '/^\.BI? / && tp {sub(/^\.BI? /, ""); gsub(/"/, ""); gsub(/ +/, " "); usage = $0; tp = 0; next}
             /^\.TP/ {tp = 1; next}
             usage {sub(/\.$/, ""); if (sub(/ \(simulated gateway only\)$/, "")) $0 = "[S] " tolower(substr($0, 1, 1)) substr($0, 2)
                    else $0 = tolower(substr($0, 1, 1)) substr($0, 2)
                    print usage "\t" $0; usage = ""}'
}
lowered() { awk -F '\t' '{rest = $2; mark = sub(/^\[S\] /, "", rest) ? "[S] " : ""; print $1 "\t" mark tolower(substr(rest, 1, 1)) substr(rest, 2)}'; }
diff <(commands "$1" | lowered) <(in_manual) || fail "orv-shell.1 says otherwise than orv-shell --help (<: in the help)"
[ "$(in_manual | wc -l)" -gt 20 ] || fail "no commands found in orv-shell.1"
