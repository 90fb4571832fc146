#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# test.sh EMULATOR PROGRAM SHIPPED_FILE: runs the program as a user does, with an emulator where one is given.
set -euo pipefail

read -ra program <<<"${1//;/ } $2"
shipped=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# expect STATUS ARGUMENTS...: runs it, keeps what it prints, and compares the exit status.
expect() {
    local wanted=$1 status=0
    shift
    "${program[@]}" "$@" >"$folder/out" 2>"$folder/err" || status=$?
    if [ "$status" -ne "$wanted" ]; then
        echo "orv-config-check $*: exit status $status instead of $wanted" >&2
        cat "$folder/out" "$folder/err" >&2
        exit 1
    fi
}
says() { # out|err TEXT
    grep -qF -- "$2" "$folder/$1" || {
        echo "not in $1: $2" >&2
        cat "$folder/$1" >&2
        exit 1
    }
}
never_says() { # out|err TEXT
    ! grep -qF -- "$2" "$folder/$1" || {
        echo "in $1: $2" >&2
        exit 1
    }
}
is_silent() {
    [ ! -s "$folder/$1" ] || {
        echo "$1 is not empty:" >&2
        cat "$folder/$1" >&2
        exit 1
    }
}

expect 0 "$shipped"
is_silent err
says out "[broker]"
says out "port = 1883"
says out "# [cloud] endpoint is empty: the WAN route will never move"
expect 0 --quiet "$shipped"
is_silent out
printf '[cloud]\nendpoint = cloud.example.com\n' >"$folder/with-endpoint.ini"
expect 0 "$folder/with-endpoint.ini"
never_says out "endpoint is empty"

printf '[broker]\nprot = 1\nport = 7\npassword = s3cret\n' >"$folder/faulty.ini"
expect 1 "$folder/faulty.ini"
says err "$folder/faulty.ini:2: [broker] has no such key, ignored; did you mean \"port\"?"
says out "port = 7"
says out "password = (not shown)"
expect 1 --quiet "$folder/faulty.ini"
is_silent out

chmod 644 "$folder/faulty.ini"
expect 1 --quiet "$folder/faulty.ini"
says err "$folder/faulty.ini holds a password, and every user of this machine may read it; chmod 640"
chmod 600 "$folder/faulty.ini"
expect 1 --quiet "$folder/faulty.ini"
never_says err "holds a password"
printf '[broker]\npassword s3cret\n' >"$folder/secret.ini"
expect 1 "$folder/secret.ini"
never_says out s3cret
never_says err s3cret

# The gateway's own file may be missing, one that is named may not.
[ -e /etc/orv/gateway.ini ] || {
    expect 0
    is_silent err
    says out "# /etc/orv/gateway.ini does not exist; the defaults are in force"
}
expect 1 "$folder/missing.ini"
says err "$folder/missing.ini: cannot be read (No such file or directory)"
never_says err ORV_GATEWAY_CONFIG
is_silent out

expect 2 --nonsense
says err "unrecognized option '--nonsense'"
says err "orv-config-check --help shows what can be said"
expect 2 one two
says err "one file at a time, and not two besides"
expect 0 --help
says out "Exit status"
expect 0 --version
