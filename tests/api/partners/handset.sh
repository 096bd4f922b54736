#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# handset.sh FOLDER COMMAND...: in private namespaces, a handset with a network, a tunnel device, a trusted root and the
# user's certificate; then the command. FOLDER gets the certificates that agents are to judge, in DER form, and
# client.pub, the public key of the client's certificate.
set -euo pipefail
folder=$1
shift

make_network() {
    ip link add eth0 type veth peer name access
    ip address add 192.0.2.10/24 dev eth0
    ip link set eth0 up
    ip link set access up
    ip route add default via 192.0.2.1
    ip tuntap add dev norvatun0 mode tun
    ip address add 10.8.0.2 peer 10.8.0.1 dev norvatun0
    ip link set norvatun0 up
}

# signed NAME CN DAYS [EXTENSION]: a certificate that the issuer has signed, or the root when the issuer is the name.
signed() {
    local by=issuer
    [ "$1" != issuer ] || by=root
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$1.key" -out "$1.csr" -subj "/CN=$2"
    openssl x509 -req -in "$1.csr" -CA $by.pem -CAkey $by.key -CAcreateserial -extfile <(echo "${4:-}") -out "$1.pem" -days "$3"
}

make_certificates() {
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout root.key -out root.pem -subj /CN=root -days 30
    signed issuer issuer 30 'basicConstraints=critical,CA:TRUE'
    signed gateway vpn.example 30
    signed expired vpn.example -1
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout stranger.key -out stranger.pem -subj /CN=vpn.example -days 30
    openssl req -x509 -newkey rsa:2048 -nodes -keyout client.key -out client.pem -subj '/CN=Jane Doe' -days 30
    openssl x509 -in client.pem -noout -pubkey >client.pub
    for name in issuer gateway expired stranger client; do
        openssl x509 -in $name.pem -outform DER -out $name.der
    done
    mkdir -p /var/ssl/trustedcerts /var/ssl/certs /var/ssl/private
    cp root.pem /var/ssl/trustedcerts/
    openssl rehash /var/ssl/trustedcerts
    cp client.pem /var/ssl/certs/jane.pem
    openssl rsa -in client.key -traditional -out /var/ssl/private/rsajane.pem
}

make_network
(cd "$folder" && make_certificates) >"$folder/making.log" 2>&1 || { cat "$folder/making.log"; exit 1; }
exec "$@"
