#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# run-examples.sh WORK SOURCE: in private namespaces, a handset with a network, a bus, systemd-resolved and both services,
# a gateway's certificate and a user's; then what examples.sh has built, and its commands.
set -euo pipefail
work=$1 source=$2
# shellcheck source=../support/daemons.sh
. "$source/tests/support/daemons.sh"

fail() {
    echo "run-examples.sh: $*" >&2
    exit 1
}

# says TEXT... -- COMMAND...: the command succeeds and prints each of the texts.
says() {
    local -a texts=()
    local text
    while [ "$1" != -- ]; do
        texts+=("$1")
        shift
    done
    shift
    VKLOG_TARGET=stderr "$@" >"$work/output" 2>&1 || { cat "$work/output"; fail "'$*' failed"; }
    for text in "${texts[@]}"; do
        grep -qF -- "$text" "$work/output" || { cat "$work/output"; fail "'$*' does not print '$text'"; }
    done
}

make_network() {
    ip link add eth0 type veth peer name access
    ip address add 192.0.2.10/24 dev eth0
    ip link set eth0 up
    ip link set access up
    ip route add default via 192.0.2.1
}

make_tunnel() {
    ip tuntap add dev norvatun0 mode tun
    ip address add 10.8.0.2 peer 10.8.0.1 dev norvatun0
    ip link set norvatun0 up
}

# A root that the device trusts, an issuer below it, a gateway's certificate, and a user's bundle.
make_certificates() {
    local extension=/tmp/ca.cnf
    printf 'basicConstraints=critical,CA:TRUE\n' >$extension
    openssl req -x509 -newkey rsa:2048 -nodes -keyout root.key -out root.pem -subj /CN=root -days 30
    openssl req -newkey rsa:2048 -nodes -keyout issuer.key -out issuer.csr -subj /CN=issuer
    openssl x509 -req -in issuer.csr -CA root.pem -CAkey root.key -CAcreateserial -extfile $extension -out issuer.pem -days 30
    openssl req -newkey rsa:2048 -nodes -keyout gateway.key -out gateway.csr -subj /CN=vpn.example
    openssl x509 -req -in gateway.csr -CA issuer.pem -CAkey issuer.key -CAcreateserial -out gateway.pem -days 30
    openssl x509 -in gateway.pem -outform DER -out gateway.der
    openssl x509 -in issuer.pem -outform DER -out intermediate.der
    openssl req -x509 -newkey rsa:2048 -nodes -keyout client.key -out client.pem -subj '/CN=Jane Doe' -days 30
    openssl pkcs12 -export -inkey client.key -in client.pem -out client.p12 -passout pass:secret
    mkdir -p /var/ssl/trustedcerts
    cp root.pem /var/ssl/trustedcerts/
    openssl rehash /var/ssl/trustedcerts
}

services=()
end_daemons() {
    kill "${services[@]}" "${daemon_pids[@]}" 2>/dev/null || true
    wait
}
trap end_daemons EXIT

cd "$work/place"
make_network
start_dbus
start_resolved
make_certificates >"$work/certificates.log" 2>&1 || { cat "$work/certificates.log"; fail 'no certificates'; }
for service in connectionmanager certificatemanager; do
    "$work/prefix/libexec/vesk-$service" &
    services+=($!)
    wait_for_bus_name com.vesk.$service
done

make_tunnel
says 'tunnel configured' -- "$work/README"
says 'offered: com.norva.wayfold.kest.system' 'outer socket bound to eth0' 'gateway: accept' 'signature of 256' \
    'tunnel configured' 'route to 10.20.0.0 through norvatun0' 'eth0 has 192.0.2.10' 'saved, loaded, mapped and deleted' \
    'restored' 'done' -- "$work/agent-guide"
ip link delete norvatun0

# The documentation's own commands, each as it stands there, in a folder that looks like the source tree.
ln -s "$source/examples" "$source/platform" "$source/tests" "$source/docs" .
cp client.p12 /tmp/
count=0
while read -r status command <&3; do
    result=0
    timeout 60 bash -c "$command" >"$work/output" 2>&1 || result=$?
    [ "$result" = "$status" ] || { cat "$work/output"; fail "'$command' ended with $result, not $status"; }
    count=$((count + 1))
done 3<"$work/commands"
# What the text only mentions is there: the command, and each of its options.
mentioned=0
while read -r call <&3; do
    read -ra words <<<"$call"
    command=() options=()
    for word in "${words[@]}"; do
        case $word in --*) options+=("$word") ;; *) command+=("$word") ;; esac
    done
    "${command[@]}" --help >"$work/output" 2>&1 || fail "there is no '${command[*]}'"
    for option in "${options[@]}"; do
        grep -q -- "$option" "$work/output" || fail "'${command[*]}' has no option $option"
    done
    mentioned=$((mentioned + 1))
done 3<"$work/mentioned"
[ $mentioned -ge 10 ] || fail "only $mentioned commands are mentioned"

echo "the first agent, the agent guide and $count commands ran"
