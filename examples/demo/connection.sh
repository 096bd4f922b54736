# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The chapters up to a connection that stands.

# shellcheck disable=SC2154,SC2034  # shared with story.sh and its other parts
tell_networks() {
    chapter 'Networks: a handset, two access networks, an internet, gateways'
    watch_links
    build_networks
    watch_packets
    prepared 'networks were made'
    expect 'the gateway is reached over Wi-Fi' '1 received' ping -n -q -c 1 -W 5 -I eth0 198.51.100.2
    expect 'and over the cellular network' '1 received' ping -n -q -c 1 -W 5 -I rmnet0 198.51.100.2
    expect 'the network behind the gateway is not' '^[^0-9]*(1 packets transmitted, 0 received|connect:)|nreachable' \
        ping -n -c 1 -W 5 10.20.0.80
}

start_service() {
    run_beside "$1" "$build/bin/vesk-$1"
    wait_for_bus_name "com.vesk.$1"
}

tell_services() {
    chapter 'Services: bus, resolver, sleep, connections, certificates'
    start_dbus
    start_resolved
    "$resolvectl" dns eth0 192.0.2.1
    "$resolvectl" domain eth0 access.example
    expect "systemd-resolved knows the handset's DNS server" 'eth0.*192\.0\.2\.1' "$resolvectl" dns eth0
    if $in_user_namespace; then
        skipped 'elogind' 'it cannot mount its cgroup tree in a user namespace'
    else
        start_elogind
        expect 'elogind can suspend (into a file)' 'yes' busctl --system call org.freedesktop.login1 \
            /org/freedesktop/login1 org.freedesktop.login1.Manager CanSuspend
    fi
    start_service connectionmanager
    start_service certificatemanager
    expect 'the connection manager sees both networks' '"wifi":\{"state":"connected".*"wan":\{"state":"connected"' status_of_networks
    start_until dns 'started' nsenter --net=/run/netns/gateway dnsmasq --no-daemon --conf-file=/dev/null \
        --no-resolv --no-hosts --bind-interfaces --listen-address=10.20.0.53 --address=/intranet.corp.example/10.20.0.80
    expect 'a DNS server listens behind the gateway' '10\.20\.0\.53:53' in_gateway ss -H -l -n -u
}

tell_certificate() {
    chapter "The user's certificate"
    make_certificates
    prepared 'keys and certificates were made'
    expect_status 'a PKCS#12 bundle is imported over the bus' 0 'Installed: CN=Demo User' \
        "$build/bin/vpnoalctl" certs import "$secrets/user.p12" --password-file "$secrets/password"
    expect 'certificate and key are installed, for root only' 'same public key.*mode 600' installed_pair_fits
    expect 'it is listed, with the fingerprint that openssl finds' "$(fingerprint_by_openssl)" \
        "$build/bin/vpnoalctl" --json certs list
    expect 'its handle signs, and openssl verifies the signature' 'Signature Verified Successfully' signature_by_openssl
}

# connect_once STEP STATUS VERDICT GATEWAY [OPTION...]: a connection that ends at once. Where there is no tunnel device
# to be had it ends, with status 1, after the handshake.
connect_once() {
    local step=$1 status=$2 verdict=$3 reached=connected status_means=''
    shift 3
    if ! $have_tun && [ "$status" -eq 0 ]; then
        status=1 reached=handshake status_means='the handshake is done; there is no tunnel device for this user'
    fi
    [ "$verdict" != "" ] || verdict="\"event\":\"$reached\""
    expect_status "$step" "$status" "$verdict" \
        "$build/bin/sampleclient" --json "$here/profile.json" "$@" --exec true
}

tell_gateways() {
    local device=()
    chapter 'Three gateways: one is accepted, one asked about, one refused'
    $have_tun || device=(--no-device)
    file_for asked 198.51.100.6 other.example
    file_for refused 198.51.100.10 old.example
    start_gateway gateway "$here/gateway.json" "${device[@]}"
    start_gateway asked "$secrets/asked.json" "${device[@]}"
    start_gateway refused "$secrets/refused.json" --no-device
    expect 'a gateway demands a certificate: without one' 'alert handshake failure' handshake_without_certificate
    expect 'the good gateway, as openssl judges' ': OK$' openssl verify -CAfile "$secrets/authority.pem" "$secrets/gateway.pem"
    connect_once 'is accepted: handshake signed by the handle' 0 '' "$here/gateway.json"
    compare_snapshot 'and everything is restored afterwards'
    expect 'the self-signed gateway, as openssl judges' 'self-signed' openssl verify -CAfile "$secrets/authority.pem" "$secrets/asked.pem"
    connect_once 'must be asked about: with nobody there' 4 '"verdict":"ask"' "$secrets/asked.json"
    compare_snapshot 'and nothing was changed'
    connect_once 'is trusted on request' 0 '' "$secrets/asked.json" --accept-prompt
    expect 'the expired gateway, as openssl judges' 'has expired' openssl verify -CAfile "$secrets/authority.pem" "$secrets/refused.pem"
    connect_once 'is refused' 5 '"verdict":"refuse"' "$secrets/refused.json" --accept-prompt
    compare_snapshot 'and nothing was changed'
}

tell_connection() {
    local this_client
    chapter 'The connection'
    start_captures
    if ! $have_tun; then
        skipped 'packets through TLS' 'this user may not open /dev/net/tun'
        tell 'norvatun0 is a plain link to the gateway instead; vpnoalctl apply configures it through the plug-in.'
        "$build/bin/vpnoalctl" apply "$here/profile.json" >"$logs/agent.log" 2>&1 ||
            failed 'vpnoalctl apply' 'exit status 0' "$(cat "$logs/agent.log")"
        return
    fi
    start_agent
    await_event interface '"interface":"eth0"'
    expect 'interface chosen: the lowest metric' '^default via 192\.0\.2\.1 dev eth0 metric 100' ip route show default
    await_event connected
    expect 'outer socket bound to Wi-Fi' '192\.0\.2\.10%eth0:.*198\.51\.100\.2:443' outer_connection
    this_client="client CN=Demo User.* from 192\\.0\\.2\\.10:$(outer_port)\$"
    expect 'the gateway has verified who the user is' "$this_client" gateway_log gateway "$this_client"
    expect 'tunnel device' 'norvatun0 .*10\.8\.0\.2 peer 10\.8\.0\.1/24' ip -br address show norvatun0
}

tell_configuration() {
    chapter 'What the plug-in configured'
    expect 'route to the network behind the gateway' '^10\.20\.0\.0/16 via 10\.8\.0\.1 dev norvatun0' ip route
    expect 'all other traffic goes into the tunnel' '^0\.0\.0\.0/1 via 10\.8\.0\.1 dev norvatun0' ip route
    expect 'in two halves' '^128\.0\.0\.0/1 via 10\.8\.0\.1 dev norvatun0' ip route
    expect "the handset's own default route stays" '^default via 192\.0\.2\.1 dev eth0' ip route
    expect 'the kernel would send to anywhere' 'dev norvatun0' ip route get 198.18.0.7
    expect 'DNS server of the tunnel' 'norvatun0.*10\.20\.0\.53' "$resolvectl" dns norvatun0
    expect 'DNS domain of the tunnel' 'norvatun0.*corp\.example' "$resolvectl" domain norvatun0
    expect 'filter installed' 'oifname "norvatun0".*udp dport 9999.*drop' nft list ruleset
}

tell_traffic() {
    chapter 'Traffic'
    expect 'ping through the tunnel' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
    expect 'DNS query, answered behind the gateway' 'intranet\.corp\.example: 10\.20\.0\.80 .*link: norvatun0' \
        "$resolvectl" query intranet.corp.example
    expect 'the C library asks the same way' '10\.20\.0\.80' getent ahostsv4 intranet.corp.example
    expect 'UDP port 9999: the filter drops' '^0 arrived' arrivals_at 9999
    expect 'control: port 9998 arrives' '^1 arrived' arrivals_at 9998
}
