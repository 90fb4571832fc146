# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# What can go wrong, one function a command.

bad_fault() { die "$1: use $2"; }

# The kernel may tell of a carrier a second later.
fault_cable() {
    case ${1-} in
        out)
            ip -n "$eth_ns" link set dev lan down
            wait_for 3 not has_carrier eth0 || die "eth0 still has a carrier, see: $0 exec ip link"
            ;;
        in)
            has_interface eth0 || ip -n "$eth_ns" link set dev eth0 netns "$gateway_ns" up
            ip -n "$eth_ns" link set dev lan up
            wait_for 3 has_carrier_or_is_off eth0 || die "eth0 has no carrier, see: $0 exec ip link"
            ;;
        gone) ! has_interface eth0 || ip -n "$gateway_ns" link set dev eth0 netns "$eth_ns" ;;
        *) bad_fault cable "cable out|gone|in" ;;
    esac
}

# ConnMan switches an interface off when it ends.
has_carrier_or_is_off() { has_carrier "$1" || ! ip -n "$gateway_ns" -o link show dev "$1" | grep -q '[<,]UP[,>]'; }

has_carrier() { ip -n "$gateway_ns" -o link show dev "$1" | grep -q LOWER_UP; }

fault_cellular() {
    case ${1-} in
        out) set_bearer false ;;
        in) set_bearer true ;;
        gone) take_modem_away ;;
        reset)
            take_modem_away
            bring_modem_back
            ;;
        *) bad_fault cellular "cellular out|in|gone|reset" ;;
    esac
}

# The interface is gone before anybody is told, as when a modem's firmware crashes. Its other end keeps what it is set to.
take_modem_away() {
    bus_call org.ofono /modem org.freedesktop.DBus.Peer.Ping >/dev/null || die "$modem_mute"
    not has_interface wwan0 || ip -n "$gateway_ns" link set dev wwan0 netns "$cell_ns"
    set_bearer false
}

bring_modem_back() {
    local last paused
    last=$(cat "$state/cellular-address")
    echo "$cell_net.$((50 + (${last##*.} - 49) % 50))" >"$state/cellular-address"
    bus_call org.ofono /modem box.Control.Address "string:$(cat "$state/cellular-address")" >/dev/null || die "$modem_mute"
    # ConnMan asks what an interface is as soon as it appears.
    paused=$(pid_of connman) && [[ $(ps -o stat= -p "$paused") != T* ]] && kill -STOP "$paused" || paused=
    ip -n "$cell_ns" link set dev wwan0 netns "$gateway_ns"
    name_modem
    ip -n "$gateway_ns" link set dev wwan0 up
    [ -z "$paused" ] || kill -CONT "$paused"
    set_bearer true
}

modem_mute="the modem does not answer on the bus: thaw a frozen bus first ($0 bus thaw), or see $state/log/modem"

set_bearer() {
    bus_call org.ofono /modem box.Control.Bearer "boolean:$1" >/dev/null || die "$modem_mute"
}

fault_cloud() {
    case ${1-} in
        down) close_cloud ;;
        up) open_cloud ;;
        *) bad_fault cloud "cloud down|up" ;;
    esac
}

fault_cloud_tls() {
    local side
    for side in ${2:-eth cell}; do
        side_ns "$side" >/dev/null
        case ${1-} in
            refused)
                filter "$cloud_ns" "refuse_$side" \
                    "chain input { type filter hook input priority 0; iifname $side tcp dport 443 reject with tcp reset; }"
                ;;
            ok | silent | wrong-certificate)
                unfilter "$cloud_ns" "refuse_$side"
                echo "$1" >"$state/cloud/answer-$side.new"
                mv "$state/cloud/answer-$side.new" "$state/cloud/answer-$side"
                ;;
            *) bad_fault cloud-tls "cloud-tls ok|refused|silent|wrong-certificate [eth|cell]" ;;
        esac
    done
}

fault_cloud_mqtt() {
    case ${1-} in
        ok) unfilter "$cloud_ns" refuse_mqtt ;;
        refused)
            filter "$cloud_ns" refuse_mqtt \
                'chain input { type filter hook input priority 0; tcp dport 8883 reject with tcp reset; }'
            # An idle connection would not meet the filter before it is asked for a sign of life.
            if alive cloud-mqtt; then
                end cloud-mqtt KILL
                open_cloud
            fi
            ;;
        *) bad_fault cloud-mqtt "cloud-mqtt ok|refused" ;;
    esac
}

fault_broker() {
    case ${1-} in
        stop) end broker KILL ;;
        start) alive broker || start_broker ;;
        *) freeze_or_thaw broker "${1-}" "broker stop|start|freeze|thaw" ;;
    esac
}

fault_connman() {
    case ${1-} in
        stop) end connman ;;
        start)
            alive connman && return 0
            end modem # it comes back as after a boot, when ConnMan does
            start_modem
            start_connman
            ;;
        *) freeze_or_thaw connman "${1-}" "connman stop|start|freeze|thaw" ;;
    esac
}

fault_bus() { freeze_or_thaw bus "${1-}" "bus freeze|thaw"; }

freeze_or_thaw() {
    local pid
    pid=$(pid_of "$1") || die "$1 does not run"
    case $2 in
        freeze) kill -STOP "$pid" ;;
        thaw) kill -CONT "$pid" ;;
        *) bad_fault "$1" "$3" ;;
    esac
}

fault_clock() {
    [[ ${1-} =~ ^[+-]?[0-9]+$ ]] || bad_fault clock "clock SECONDS, an offset such as +3600 or -86400"
    case $1 in
        [+-]*) printf '%s\n' "$1" ;;
        *) printf '+%s\n' "$1" ;;
    esac >"$state/gateway/run/clock-offset"
}

# Writes to the gateway's /var/tmp fail; what lies there can be read. An overlay keeps what a program does to the files
# meanwhile, such as emptying one, and `ok` carries it over.
fault_var_tmp() {
    case ${1-} in
        full | read-only)
            fault_var_tmp ok
            on_gateway "$here/lib/spoil-var-tmp" "$1" || die "this machine's kernel lacks tmpfs or overlay"
            ;;
        ok) on_gateway "$here/lib/spoil-var-tmp" ok ;;
        *) bad_fault var-tmp "var-tmp full|read-only|ok" ;;
    esac
}

fault_authorities() {
    case ${1-} in
        one | full | bundle) write_authorities "$1" ;;
        *) bad_fault authorities "authorities one|full|bundle" ;;
    esac
}
