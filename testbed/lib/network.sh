# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# The namespaces, the cables between them, and the two providers.

check_networks() {
    local ns
    for ns in "$gateway_ns" "$eth_ns" "$cell_ns" "$cloud_ns"; do
        [ ! -e "/run/netns/$ns" ] || die "there is a namespace $ns already: choose another name in ORV_BOX, or end" \
            "what it belongs to (a box of this name whose folder is not $state?): $0 down"
    done
}

# The first namespace leaves /run/netns mounted on itself. A box that finds it otherwise notes so; the last one unmounts it.
netns_note=/run/orv-box-netns

add_namespaces() (
    local ns
    flock -w 30 9 || die "another box is coming up or going down for 30 s"
    mountpoint -q /run/netns || { [ -d /run/netns ] && echo found || echo made; } >"$netns_note"
    for ns in "$gateway_ns" "$eth_ns" "$cell_ns" "$cloud_ns"; do ip netns add "$ns"; done
) 9</run

remove_namespaces() (
    local ns
    flock -w 30 9 || say "another box is coming up or going down for 30 s"
    for ns in "$gateway_ns" "$eth_ns" "$cell_ns" "$cloud_ns"; do ip netns del "$ns" 2>/dev/null || true; done
    if [ ! -e "$netns_note" ] || [ -n "$(ls -A /run/netns 2>/dev/null)" ]; then exit 0; fi
    while mountpoint -q /run/netns; do umount -n /run/netns || exit 0; done
    [ "$(cat "$netns_note")" = found ] || rmdir /run/netns
    rm "$netns_note"
) 9</run

make_networks() {
    local ns
    add_namespaces
    for ns in "$gateway_ns" "$eth_ns" "$cell_ns" "$cloud_ns"; do ip -n "$ns" link set lo up; done
    if is_machine; then
        plug_machine_in
    else
        make_cable "$gateway_ns" eth0 "$eth_ns" lan 02:00:00:00:0a:01
        make_cable "$gateway_ns" wwan0 "$cell_ns" lan 02:00:00:00:0b:01
    fi
    make_cable "$eth_ns" up "$cloud_ns" eth
    make_cable "$cell_ns" up "$cloud_ns" cell
    ip -n "$cloud_ns" addr add "$cloud_address/32" dev lo
    join_cloud eth 10.99.1 "$eth_net"
    join_cloud cell 10.99.2 "$cell_net"
    make_provider eth "$eth_ns" "$eth_net" 10.99.1 "$eth_names"
    make_provider cell "$cell_ns" "$cell_net" 10.99.2 "$cell_names"
}

# make_cable NS INTERFACE NS INTERFACE [MAC of the first]
make_cable() {
    ip link add name "$2" netns "$1" type veth peer name "$4" netns "$3"
    [ -z "${5-}" ] || ip -n "$1" link set "$2" address "$5"
}

# join_cloud INTERFACE UPLINK-NET GATEWAY-NET
join_cloud() {
    ip -n "$cloud_ns" addr add "$2.2/30" dev "$1"
    ip -n "$cloud_ns" link set dev "$1" up
    ip -n "$cloud_ns" route add "$3.0/24" via "$2.1"
}

# make_provider SIDE NS GATEWAY-NET UPLINK-NET NAME-SERVER: a router with DHCP and a name server of its own, which only
# its own customers reach.
make_provider() {
    local ns=$2 net=$3 uplink=$4 names=$5
    ip -n "$ns" addr add "$names/32" dev lo
    ip -n "$ns" addr add "$net.1/24" dev lan
    ip -n "$ns" addr add "$uplink.1/30" dev up
    # Without this the kernel leaves UDP checksums to the "hardware", and ConnMan's DHCP client drops the answers.
    is_machine || ip netns exec "$ns" ethtool -K lan tx off >/dev/null
    ip -n "$ns" link set dev lan up
    ip -n "$ns" link set dev up up
    ip -n "$ns" route add "$cloud_address/32" via "$uplink.2"
    # A provider forwards only its own customers' addresses.
    ip netns exec "$ns" sysctl -qw net.ipv4.ip_forward=1 net.ipv4.conf.lan.rp_filter=1
    start_names "$1"
}

# start_names SIDE [ADDRESS [NAME]]: a provider's DHCP and name server; with an address it lies, about one name or all.
start_names() {
    local ns net names answers
    ns=$(side_ns "$1")
    case $1 in
        eth) net=$eth_net names=$eth_names ;;
        cell) net=$cell_net names=$cell_names ;;
    esac
    answers=(--local=/test/ --no-round-robin)
    [ -z "${first_address-}" ] || answers+=(--host-record="$cloud_name,$first_address")
    answers+=(--host-record="$cloud_name,$cloud_address")
    [ $# -ne 2 ] || answers=(--address="/#/$2")
    # A record would be told before the lie.
    [ "${3-}" != "$cloud_name" ] || answers=(--local=/test/)
    [ $# -ne 3 ] || answers+=(--address="/$3/$2")
    start "names-$1" ip netns exec "$ns" dnsmasq --keep-in-foreground --conf-file=/dev/null --user=root --pid-file= \
        --no-resolv --no-hosts --interface=lan --interface=lo --bind-interfaces --dhcp-authoritative --no-ping \
        --dhcp-range="$net.100,$net.200,255.255.255.0,1h" --dhcp-leasefile="$state/leases-$ns" \
        --dhcp-option="option:router,$net.1" --dhcp-option="option:dns-server,$names" \
        "${answers[@]}" --log-facility=- --log-queries
    wait_for 5 listens "$ns" 53 || die "the name server of $1 does not start, see $state/log/names-$1"
}
