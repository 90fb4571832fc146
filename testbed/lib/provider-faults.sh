# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# What can go wrong between the gateway and the cloud, on one side's way.

side_ns() {
    case ${1-} in
        eth) echo "$eth_ns" ;;
        cell) echo "$cell_ns" ;;
        *) die "which side? use eth or cell" ;;
    esac
}

# filter NS NAME CHAIN...: puts a table of packet filters in place, instead of one of that name.
filter() {
    ip netns exec "$1" nft -f - <<E
table inet $2
delete table inet $2
table inet $2 {
$(printf '%s\n' "${@:3}")
}
E
}

unfilter() { ip netns exec "$1" nft delete table inet "$2" 2>/dev/null || true; }

mute_names='chain input { type filter hook input priority 0; udp dport 53 drop; tcp dport 53 drop; }'

# A dead provider: link and address stay, nothing is forwarded, its name server is mute.
fault_provider() {
    local ns
    ns=$(side_ns "${1-}")
    case ${2-} in
        dead) filter "$ns" dead 'chain forward { type filter hook forward priority 0; policy drop; }' "$mute_names" ;;
        back) unfilter "$ns" dead ;;
        *) bad_fault provider "provider eth|cell dead|back" ;;
    esac
}

fault_names() {
    local ns
    ns=$(side_ns "${1-}")
    case ${2-}/$# in
        mute/2) filter "$ns" mute "$mute_names" ;;
        lie/[34])
            is_address "$3" || bad_fault names "names eth|cell lie ADDRESS [NAME], with an IPv4 address"
            end "names-$1"
            start_names "$1" "${@:3}"
            touch "$state/lie-$1"
            ;;
        first/3)
            is_address "$3" || bad_fault names "names eth|cell first ADDRESS, with an IPv4 address"
            filter "$ns" hole "chain forward { type filter hook forward priority -1; ip daddr $3 drop; }" \
                "chain input { type filter hook input priority -1; ip daddr $3 drop; }"
            ip -n "$ns" route replace "$3/32" dev up
            end "names-$1"
            first_address=$3 start_names "$1"
            touch "$state/lie-$1"
            ;;
        back/2)
            unfilter "$ns" mute
            [ -e "$state/lie-$1" ] || return 0
            rm "$state/lie-$1"
            end "names-$1"
            start_names "$1"
            ;;
        *) bad_fault names "names eth|cell mute|back, names eth|cell lie ADDRESS [NAME], or names eth|cell first ADDRESS" ;;
    esac
}

is_address() { [[ $1 =~ ^([0-9]{1,3}\.){3}[0-9]{1,3}$ ]]; }

# Each packet on the link between gateway and provider, in either direction.
fault_loss() {
    local ns
    ns=$(side_ns "${1-}")
    if [ "${2-}" = off ]; then
        unfilter "$ns" loss
        return 0
    fi
    [[ ${2-} =~ ^[1-9][0-9]?$ ]] || bad_fault loss "loss eth|cell PERCENT|off, with 1 to 99 per cent"
    filter "$ns" loss \
        "chain in { type filter hook prerouting priority raw; iifname lan numgen random mod 100 < $2 counter drop; }" \
        "chain out { type filter hook postrouting priority 300; oifname lan numgen random mod 100 < $2 counter drop; }"
}

fault_bandwidth() {
    local ns device
    ns=$(side_ns "${1-}")
    [[ ${2-} =~ ^([1-9][0-9]{0,6}|off)$ ]] || bad_fault bandwidth "bandwidth eth|cell KBIT|off"
    for device in lan up; do
        if [ "$2" = off ]; then
            tc -n "$ns" qdisc del dev "$device" root 2>/dev/null || true
        else
            tc -n "$ns" qdisc replace dev "$device" root tbf rate "${2}kbit" burst 4kb latency 1s ||
                die "this machine's kernel cannot limit a bandwidth (it lacks sch_tbf)"
        fi
    done
}

# A captive portal lets nothing through and answers every connection itself, also those that were there before.
fault_portal() {
    local ns
    ns=$(side_ns "${1-}")
    case ${2-} in
        on)
            alive "portal-$1" ||
                start "portal-$1" ip netns exec "$ns" /usr/bin/python3 -Bu -m orv_testbed.portal "$state/cloud/tls" "$portal_name"
            wait_for 5 listens "$ns" 8883 || die "the portal does not start, see $state/log/portal-$1"
            filter "$ns" portal \
                'chain prerouting { type nat hook prerouting priority dstnat; iifname lan tcp dport { 80, 443, 8883 } redirect; }' \
                'chain forward { type filter hook forward priority 0; policy drop; }'
            ;;
        off)
            unfilter "$ns" portal
            end "portal-$1"
            ;;
        *) bad_fault portal "portal eth|cell on|off" ;;
    esac
}

# What the end of a lease leaves on the gateway: the link, ConnMan's service, and neither address nor default route.
fault_lease() {
    case ${1-}/${2-} in
        eth/end)
            filter "$eth_ns" no_lease 'chain input { type filter hook input priority 0; udp dport 67 drop; }'
            ip -n "$gateway_ns" -4 addr flush dev eth0
            ;;
        eth/back)
            unfilter "$eth_ns" no_lease
            # ConnMan asks for a lease when the link comes up.
            if has_carrier eth0 && [ -z "$(ip -n "$gateway_ns" -4 -o addr show dev eth0 scope global)" ]; then
                fault_cable out
                fault_cable in
            fi
            ;;
        *) bad_fault lease "lease eth end|back" ;;
    esac
}
