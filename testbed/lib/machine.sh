# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# The gateway as a machine of its own: a MIPS32 board in qemu, its network cards as taps in the providers' namespaces.

machine=$state/machine

is_machine() { [ -d "$machine" ]; }

check_mipsel() {
    local status=0
    command -v qemu-system-mipsel >/dev/null || die "qemu-system-mipsel is missing: run $repo/script/bootstrap machine"
    [ -c /dev/net/tun ] || die "this machine has no /dev/net/tun"
    gateway_image=$("$repo/script/lib/mipsel-gateway") || status=$?
    [ $status = 0 ] || exit $status
}

make_machine() {
    mkdir "$machine"
    cp "$gateway_image/kernel" "$gateway_image/initrd.gz" "$machine/"
    cp --sparse=always "$gateway_image/disk.img" "$machine/"
    ln -s ../machine/console "$state/log/console"
    : >"$machine/console"
}

# The machine trusts Debian's authorities, and the cloud's: in the bundle and under its hash.
give_authority() {
    local bundle=$machine/ca-certificates.crt ca=$state/cloud/tls/ca.pem
    debugfs -R "cat /etc/ssl/certs/ca-certificates.crt" "$machine/disk.img" >"$bundle" 2>>"$state/log/debugfs"
    cat "$ca" >>"$bundle"
    debugfs -w -f /dev/stdin "$machine/disk.img" >>"$state/log/debugfs" 2>&1 <<E
rm /etc/ssl/certs/ca-certificates.crt
write $bundle /etc/ssl/certs/ca-certificates.crt
write $ca /etc/ssl/certs/gateway-box-ca.pem
symlink /etc/ssl/certs/$(openssl x509 -noout -hash -in "$ca").0 gateway-box-ca.pem
E
}

plug_machine_in() {
    local ns
    for ns in "$eth_ns" "$cell_ns"; do ip netns exec "$ns" ip tuntap add dev lan mode tap; done
}

start_machine() {
    start gateway ip netns exec "$gateway_ns" /usr/bin/python3 -u "$here/orv_testbed/machine/power.py" \
        "$machine" "$eth_ns" "$cell_ns" "$@"
    wait_for 20 test -S "$machine/agent" || die "qemu does not start, see $state/log/gateway"
}

# The guest agent comes up with the system; the services may still be starting.
wait_machine() {
    if ! wait_for 300 machine_answers_or_has_ended || ! alive gateway; then
        die "the machine does not come up; its console: $(tail -n 20 "$machine/console")"
    fi
    # As on the box, the cellular service is connected once; from then on ConnMan does it by itself.
    wait_for 200 on_machine sh /opt/testbed/connect-cellular || die "the machine's ConnMan does not connect its cellular service"
}

machine_answers_or_has_ended() { ! alive gateway || on_machine true; }

on_machine() { alive gateway && /usr/bin/python3 "$here/orv_testbed/machine/agent.py" "$machine" "$@"; }

set_link() {
    /usr/bin/python3 -c 'import pathlib, sys
sys.path.insert(0, sys.argv[1])
from orv_testbed.machine import agent
agent.monitor(pathlib.Path(sys.argv[2]), "set_link", name=sys.argv[3], up=sys.argv[4] == "in")' "$here" "$machine" "$@"
}

machine_bearer() {
    on_machine dbus-send --system --print-reply=literal --dest=org.ofono /modem box.Control.Bearer "boolean:$1" >/dev/null ||
        die "the modem does not answer"
}

# machine_command COMMAND...: what a machine does otherwise than a gateway in namespaces.
machine_command() {
    case $* in
        exec\ *) exec /usr/bin/python3 "$here/orv_testbed/machine/agent.py" "$machine" "${@:2}" ;;
        services) on_machine /usr/bin/python3 /opt/testbed/services.py ;;
        "cable out" | "cable in") set_link card-eth "$2" ;;
        "cellular out") machine_bearer false ;;
        "cellular in") machine_bearer true ;;
        *) die "$*: not on a machine; see what \"box exec systemctl\" can do there" ;;
    esac
}

fault_power() {
    is_machine || die "power: only a machine has that"
    case ${1-} in
        cut) end gateway KILL ;;
        on)
            ! alive gateway || die "the power is on"
            rm -f "$machine/agent"
            start_machine "${@:2}"
            ;;
        *) bad_fault power "power cut|on [TIME of the clock]" ;;
    esac
}
