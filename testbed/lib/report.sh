# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# What is going on in the box.

# One line a service, in ConnMan's order: interface, state, type, address, name servers, path.
report_services() {
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=$bus_socket timeout 5 /usr/bin/python3 -B -m orv_testbed.services 2>/dev/null
}

report_status() {
    local process
    for process in "$state"/pid/*; do
        process=${process##*/}
        if alive "$process"; then echo "$process: pid $(pid_of "$process")"; else echo "$process: not running"; fi
    done
    echo "services, in ConnMan's order:"
    report_services | sed 's/^/  /' || echo "  ConnMan does not answer"
    echo "routes:"
    ip -n "$gateway_ns" route | sed 's/^/  /'
    ip -n "$gateway_ns" rule | sed -n '/lookup \(local\|main\|default\)/!s/^/  rule /p'
    echo "name servers:"
    sed -n 's/^nameserver/ /p' "$state/gateway/run/connman/resolv.conf"
}

report_log() {
    [ $# -gt 0 ] || { (cd "$state/log" && ls); return; }
    [[ $1 != */* && -e $state/log/$1 ]] || die "there is no log of $1; there are: $(cd "$state/log" && echo ./*)"
    cat "$state/log/$1"
}

# The end of each log that says something: the folder goes away with the box.
show_logs() {
    local log
    for log in "$state"/log/*; do
        [ ! -s "$log" ] || tail -n 10 "$log" | sed "s/^/box: ${log##*/}: /" >&2
    done
}

leads_over() { [[ "$(ip -n "$gateway_ns" route show default)" == *" dev $1"* ]]; }

wait_route() {
    wait_for "${2:-10}" leads_over "$1" ||
        die "the default route does not lead over $1 after ${2:-10} s: $(ip -n "$gateway_ns" route show default)"
}
