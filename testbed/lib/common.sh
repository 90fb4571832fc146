# shellcheck shell=bash disable=SC2034,SC2154
# SPDX-License-Identifier: Apache-2.0
# Settings, messages, and the processes of the box.

name=${ORV_BOX:-orv}
state=${ORV_BOX_DIR:-${TMPDIR:-/tmp}/orv-box-$name}
repo=$(cd "$here/.." && pwd)
tools=${ORV_TOOLS:-$repo/build/tools}
export PYTHONPATH=$here${PYTHONPATH:+:$PYTHONPATH}

gateway_ns=$name-gw
eth_ns=$name-eth
cell_ns=$name-cell
cloud_ns=$name-cloud

cloud_name=cloud.box.test
portal_name=portal.box.test
cloud_address=198.51.100.10 # TEST-NET-2
eth_net=10.11.0             # between gateway and Ethernet provider
cell_net=10.12.0            # between gateway and cellular provider
eth_names=10.21.0.53        # each provider's own name server
cell_names=10.22.0.53
bus_socket=$state/gateway/run/dbus/system_bus_socket

say() { printf 'box: %s\n' "$*" >&2; }
die() {
    say "$*"
    exit 1
}

check_caller() {
    [[ $name =~ ^[a-z0-9]{1,8}$ ]] || die "ORV_BOX=$name: a box is named by 1 to 8 small letters and digits"
    [ "$(id -u)" = 0 ] || die "network namespaces need root: sudo $0 $command"
    # Its notes say which processes root ends.
    [ ! -e "$state" ] || [[ -O $state && ! -L $state ]] || die "$state is not ours: choose another folder in ORV_BOX_DIR"
}

check_machine() {
    case $(realpath -m "$state")/ in
        /etc/* | /var/* | /run/*) die "ORV_BOX_DIR=$state: the gateway has its own /etc, /var and /run; choose a folder elsewhere" ;;
    esac
    # 108 characters and no more is what the kernel takes for a socket.
    [ ${#bus_socket} -le 107 ] || die "ORV_BOX_DIR=$state is $((${#bus_socket} - 107)) characters too long: choose a shorter path"
    unshare --net --mount --uts true 2>/dev/null ||
        die "this machine does not let us make namespaces (a container? start it with --privileged; a chroot? first mount its root on itself)"
    local tool package
    while read -r tool package; do
        command -v "$tool" >/dev/null || die "$tool is missing: run $repo/script/bootstrap box (package $package)"
    done <<'REMEDIES'
ip iproute2
tc iproute2
nft nftables
ethtool ethtool
dnsmasq dnsmasq-base
dbus-daemon dbus-daemon
openssl openssl
nsenter util-linux
setpriv util-linux
sysctl procps
REMEDIES
    /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null ||
        die "python3's dbus or gi module is missing: run $repo/script/bootstrap box (packages python3-dbus, python3-gi)"
    connmand=$(find_daemon connmand) && mosquitto=$(find_daemon mosquitto) || exit 1
}

find_daemon() {
    local daemon
    for daemon in "$tools/usr/sbin/$1" "/usr/sbin/$1"; do
        if [ -x "$daemon" ]; then
            echo "$daemon"
            return 0
        fi
    done
    die "$1 is missing: run $repo/script/bootstrap box (it is unpacked into $tools, not installed)"
}

# A process is noted as "pid start-time": one that has ended, or whose pid went to another process, is none of ours.
started_at() { sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | awk '$1 != "Z" { print $20 }'; }

pid_of() {
    local pid at
    read -r pid at 2>/dev/null <"$state/pid/$1" && [ -n "$at" ] && [ "$(started_at "$pid")" = "$at" ] && echo "$pid"
}

alive() { pid_of "$1" >/dev/null; }

need_up() {
    check_caller
    alive gateway || die "no box named $name is up: $0 up"
}

# start NAME COMMAND...: in the background, its output goes to log/NAME.
start() {
    local process=$1
    shift
    setsid "$@" >>"$state/log/$process" 2>&1 </dev/null &
    echo "$! $(started_at $!)" >"$state/pid/$process"
    disown # bash need not tell how it ended
}

# end NAME [SIGNAL]
end() {
    local pid
    if pid=$(pid_of "$1"); then
        kill "-${2:-TERM}" "$pid" 2>/dev/null || true
        kill -CONT "$pid" 2>/dev/null || true
        wait_for 3 not alive "$1" || kill -KILL "$pid" 2>/dev/null || true
        wait_for 1 not alive "$1" || true
    fi
    rm -f "$state/pid/$1"
}

not() { ! "$@"; }

# wait_for SECONDS COMMAND...: until the command succeeds.
wait_for() {
    local end=$((${EPOCHREALTIME/[.,]/} + $1 * 1000000))
    shift
    while ! "$@" >/dev/null 2>&1; do
        [ "${EPOCHREALTIME/[.,]/}" -lt $end ] || return 1
        sleep 0.02
    done
}

# Everything that runs in the box's namespaces is the box's, also what was started with "box exec".
end_all() {
    local process ns pid
    for process in routes connman modem broker resolver bus; do end "$process" KILL; done
    for ns in "$gateway_ns" "$eth_ns" "$cell_ns" "$cloud_ns"; do
        for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null || true; done
    done
    for process in "$state"/pid/*; do
        [ ! -e "$process" ] || end "${process##*/}" KILL
    done
}
