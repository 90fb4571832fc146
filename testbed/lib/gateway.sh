# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# The gateway: its own network, /etc, /var, /run and host name; message bus, connection manager, modem, MQTT broker.
# Nothing in it may set the machine's clock.

forbidden=-sys_time,-sys_module,-sys_boot

on_gateway() { (on_gateway_replacing_this_process "$@"); }

on_gateway_replacing_this_process() {
    local holder place=/ clock=()
    holder=$(pid_of gateway) || die "no box named $name is up: $0 up"
    [ ! -d "/proc/$holder/root$PWD" ] || place=$PWD
    if [ "${ORV_BOX_CLOCK-}" = 1 ]; then
        clock=(LD_PRELOAD="$(faketime_library)" FAKETIME_TIMESTAMP_FILE=/run/clock-offset FAKETIME_NO_CACHE=1
            FAKETIME_DONT_FAKE_MONOTONIC=1)
        echo "$BASHPID" >>"$state/faketime-pids"
    fi
    exec nsenter --target "$holder" --root --net --mount --uts --wdns="$place" -- \
        setpriv --bounding-set="$forbidden" -- env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket \
        ORV_GATEWAY_CONFIG=/etc/orv/gateway.ini "${clock[@]}" "$@"
}

# libfaketime leaves its shared memory behind, under the pid of the program that made it.
remove_faketime_traces() {
    local pid
    [ -e "$state/faketime-pids" ] || return 0
    while read -r pid; do
        rm -f "/dev/shm/faketime_shm_$pid" "/dev/shm/sem.faketime_sem_$pid"
    done <"$state/faketime-pids"
}

faketime_library() {
    local library
    for library in "$tools"/usr/lib/*/faketime/libfaketime.so.1 /usr/lib/*/faketime/libfaketime.so.1; do
        if [ -e "$library" ]; then
            echo "$library"
            return 0
        fi
    done
    die "ORV_BOX_CLOCK=1 needs libfaketime: run $repo/script/bootstrap box"
}

start_gateway() {
    make_gateway_files
    start gateway ip netns exec "$gateway_ns" unshare --mount --uts --propagation private -- \
        "$here/lib/hold-gateway" "$state/gateway"
    wait_for 5 test -e "$state/gateway/ready" || die "the gateway's namespaces do not come up, see $state/log/gateway"
    start_bus
    start_resolver
    start_broker
    start_modem
    start_routes
    start_connman
    wait_for 10 connect_cellular || die "ConnMan shows no cellular service, see $state/log/connman and $state/log/modem"
    wait_for 20 both_connected || die "ConnMan does not connect both interfaces, see $state/log/connman"
}

make_gateway_files() {
    local root=$state/gateway
    mkdir -p "$root"/etc "$root"/run/{dbus,connman} "$root"/var/{cache,lib/connman,log,spool,tmp}
    chmod 1777 "$root/var/tmp"
    ln -s /run "$root/var/run"
    cp -a /etc/. "$root/etc"
    rm -f "$root/etc/resolv.conf"
    printf 'nameserver 127.0.0.1\n' >"$root/etc/resolv.conf"
    : >"$root/run/connman/resolv.conf"
    echo +0 >"$root/run/clock-offset"
    mkdir -p "$root/etc/orv"
    write_authorities one
    printf '[cloud]\nendpoint = %s\n[log]\nlevel = trace\n' "$cloud_name" >"$root/etc/orv/gateway.ini"
    cp "$here"/etc/* "$root/etc/orv/"
}

# write_authorities one|full|bundle: what connects over TLS trusts the system's authorities, a folder of files named by hash
# and all of them in one file. Few are enough for a gateway, and quicker to read.
write_authorities() {
    local certs=$state/gateway/etc/ssl/certs bundle=/etc/ssl/certs/ca-certificates.crt
    rm -rf "$certs.new"
    mkdir -p "$certs.new"
    if [ "$1" != one ]; then
        [ -s "$bundle" ] || die "this machine has no list of authorities: apt-get install ca-certificates"
        [ "$1" = bundle ] || cp -a /etc/ssl/certs/. "$certs.new"
        cp --remove-destination "$bundle" "$certs.new"
    fi
    cat "$state/cloud/tls/ca.pem" >>"$certs.new/ca-certificates.crt"
    if [ "$1" != bundle ]; then
        cp "$state/cloud/tls/ca.pem" "$certs.new/gateway-box-ca.pem"
        ln -s gateway-box-ca.pem "$certs.new/$(openssl x509 -noout -hash -in "$state/cloud/tls/ca.pem").0"
    fi
    rm -rf "$certs"
    mv "$certs.new" "$certs"
}

start_bus() {
    start bus "$0" exec dbus-daemon --config-file=/etc/orv/bus.conf --nofork --nopidfile
    wait_for 5 test -S "$bus_socket" || die "the message bus does not start, see $state/log/bus"
}

# ConnMan lists the name servers of both providers, a dead one first if need be, and the C library asks one after the other,
# each for a second at least. The forwarder asks all at once and passes on the first answer.
start_resolver() {
    start resolver "$0" exec dnsmasq --keep-in-foreground --conf-file=/dev/null --user=root --pid-file= --no-hosts \
        --listen-address=127.0.0.1 --bind-interfaces --resolv-file=/run/connman/resolv.conf --all-servers --cache-size=0 \
        --log-facility=-
    wait_for 5 listens "$gateway_ns" 53 || die "the gateway's name server does not start, see $state/log/resolver"
}

start_broker() {
    start broker "$0" exec "${mosquitto:-$(find_daemon mosquitto)}" -c /etc/orv/mosquitto.conf
    wait_for 5 listens "$gateway_ns" 1883 || die "the gateway's broker does not start, see $state/log/broker"
}

# ConnMan takes an interface for a cellular one by the DEVTYPE in its uevent, and has its address from the modem manager.
name_modem() {
    local uevent=$state/gateway/run/wwan0.uevent
    printf 'DEVTYPE=wwan\nINTERFACE=wwan0\nIFINDEX=%s\n' \
        "$(ip -n "$gateway_ns" -o link show wwan0 | cut -d: -f1)" >"$uevent"
    on_gateway mountpoint -q /sys/class/net/wwan0/uevent ||
        on_gateway mount -n --bind /run/wwan0.uevent /sys/class/net/wwan0/uevent
}

has_interface() { ip -n "$gateway_ns" link show dev "$1" >/dev/null 2>&1; }

start_modem() {
    if has_interface wwan0; then
        name_modem
        ip -n "$gateway_ns" link set dev wwan0 up
    fi
    [ -e "$state/cellular-address" ] || echo "$cell_net.50" >"$state/cellular-address"
    start modem "$0" exec /usr/bin/python3 -Bu -m orv_testbed.modem \
        wwan0 "$(cat "$state/cellular-address")" 255.255.255.0 "$cell_net.1" "$cell_names"
    if ! wait_for 10 on_bus_or_ended modem org.ofono || ! alive modem; then
        die "the modem manager does not come onto the bus: thaw a frozen bus first ($0 bus thaw), or see $state/log/modem"
    fi
}

start_connman() {
    start connman "$0" exec "${connmand:-$(find_daemon connmand)}" \
        --nodaemon --config=/etc/orv/connman.conf --nodnsproxy
    wait_for 10 on_bus_or_ended connman net.connman || die "ConnMan does not come onto the bus, see $state/log/connman"
    alive connman || die "ConnMan has ended at once, see $state/log/connman"
}

start_routes() {
    local program
    program=$(routes_program) || return 0
    start routes "$0" exec "$program"
}

routes_program() {
    local program
    for program in ${ORV_SOURCE_ROUTES:-"$repo"/build/*/bin/orv-source-routes}; do
        if [ -x "$program" ]; then
            echo "$program"
            return 0
        fi
    done
    say "orv-source-routes is not built: connections bound to the interface without the default route will fail"
    return 1
}

bus_call() {
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=$bus_socket timeout 5 dbus-send --system --print-reply=literal --dest="$1" "${@:2}"
}

# on_bus_or_ended PROCESS NAME
on_bus_or_ended() {
    bus_call org.freedesktop.DBus / org.freedesktop.DBus.GetNameOwner "string:$2" || ! alive "$1"
}

# A cellular service connects by itself only after a first connection.
connect_cellular() {
    local path
    bus_call net.connman /net/connman/technology/cellular net.connman.Technology.SetProperty \
        string:Powered variant:boolean:true >/dev/null 2>&1 || true
    path=$(report_services | awk '$3 == "cellular" { print $NF }')
    [ -n "$path" ] && bus_call net.connman "$path" net.connman.Service.Connect
}

both_connected() { [ "$(report_services | grep -cE ' (ready|online) ')" -ge 2 ]; }
