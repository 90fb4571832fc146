# shellcheck shell=bash disable=SC2154
# SPDX-License-Identifier: Apache-2.0
# The cloud: an HTTPS endpoint that notes every TLS handshake, and an MQTT broker over TLS, with a CA of their own.

make_certificates() {
    local tls=$state/cloud/tls
    mkdir -p "$tls"
    make_ca "$tls/ca" "Gateway box CA"
    make_ca "$tls/other-ca" "A CA that the gateway does not know"
    make_certificate "$tls/ca" "$tls/server" "$cloud_name" "$cloud_address"
    make_certificate "$tls/other-ca" "$tls/wrong" "$cloud_name" "$cloud_address"
    make_certificate "$tls/other-ca" "$tls/portal" "$portal_name" "$eth_net.1"
}

make_ca() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 30 -subj "/CN=$2" \
        -keyout "$1.key" -out "$1.pem" 2>>"$state/log/openssl"
}

# make_certificate AUTHORITY CERTIFICATE NAME ADDRESS
make_certificate() {
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$3" \
        -keyout "$2.key" -out "$2.csr" 2>>"$state/log/openssl"
    openssl x509 -req -in "$2.csr" -CA "$1.pem" -CAkey "$1.key" -CAcreateserial -days 30 \
        -extfile <(echo "subjectAltName=DNS:$3,IP:$4") -out "$2.pem" 2>>"$state/log/openssl"
}

start_cloud() {
    make_certificates
    echo ok >"$state/cloud/answer-eth"
    echo ok >"$state/cloud/answer-cell"
    cat >"$state/cloud/mosquitto.conf" <<E
user root
listener 8883 $cloud_address
cafile $state/cloud/tls/ca.pem
certfile $state/cloud/tls/server.pem
keyfile $state/cloud/tls/server.key
allow_anonymous true
set_tcp_nodelay true
log_type all
log_timestamp_format %Y-%m-%dT%H:%M:%S
E
    open_cloud
}

open_cloud() {
    alive cloud-https ||
        start cloud-https ip netns exec "$cloud_ns" /usr/bin/python3 -Bu -m orv_testbed.cloud_https "$state/cloud" \
            "$cloud_address" "$eth_net." "$cell_net."
    alive cloud-mqtt ||
        start cloud-mqtt ip netns exec "$cloud_ns" "${mosquitto:-$(find_daemon mosquitto)}" -c "$state/cloud/mosquitto.conf"
    wait_for 5 listens "$cloud_ns" 443 || die "the cloud's endpoint does not start, see $state/log/cloud-https"
    wait_for 5 listens "$cloud_ns" 8883 || die "the cloud's broker does not start, see $state/log/cloud-mqtt"
}

close_cloud() {
    end cloud-https
    end cloud-mqtt
}

# listens NS PORT
listens() { [ -n "$(ip netns exec "$1" ss -Hltn "sport = :$2")" ]; }
