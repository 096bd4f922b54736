# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The chapter of OpenVPN itself: `vpnoalctl run` is the agent, and OpenVPN's scripts are the hook. The server is in a
# namespace of its own, office.

# shellcheck disable=SC2154,SC2034  # shared with story.sh and its other parts
office=198.51.100.14
anywhere6=2001:db8:99::80

why_no_openvpn() {
    if ! $have_tun; then
        echo 'this user may not open /dev/net/tun'
    elif [ ! -x "$(type -P openvpn)" ]; then
        echo 'openvpn is not installed'
    fi
}

# IPv6 of an access network, as the handset gets it when the link comes up. The address anywhere6 is on both.
ipv6_on() {
    local interface=$1 network=$2
    echo 0 >/proc/sys/net/ipv6/conf/lo/disable_ipv6
    echo 0 >"/proc/sys/net/ipv6/conf/$interface/disable_ipv6"
    ip -6 address add "$network::10/64" dev "$interface" nodad
    ip -6 route add default via "$network::1" dev "$interface" metric "$3"
}

# Addresses of the user's choice only: none that the kernel makes by itself and takes its time to test.
prepare_ipv6() {
    ip link set "$2" addrgenmode none
    "in_$1" sh -c "ip link set handset addrgenmode none
        echo 0 >/proc/sys/net/ipv6/conf/handset/disable_ipv6; echo 0 >/proc/sys/net/ipv6/conf/lo/disable_ipv6
        ip -6 address add $3::1/64 dev handset nodad; ip -6 address add $anywhere6/128 dev lo nodad"
    ipv6_on "$2" "$3" "$4"
}

# OpenVPN's own packets, counted where they leave the handset.
count_outer_packets() {
    "in_$1" nft -f - <<END
table netdev outer {
    counter openvpn { }
    chain leaving {
        type filter hook ingress device handset priority 0
        ip daddr $office udp dport 1194 counter name openvpn
    }
}
END
}

outer_packets() { "in_$1" nft list counter netdev outer openvpn | awk '/packets/ { print $2 }'; }

# outer_has_moved NETWORK BEFORE: its count is another than BEFORE.
outer_has_moved() { [ "$(outer_packets "$1")" -gt "$2" ]; }

write_openvpn_files() {
    make_key office
    issue office '/O=Demo/CN=office.example' serverAuth 2
    cat >"$secrets/office.conf" <<END
client
remote $office
nobind
ca $secrets/authority.pem
cert $secrets/user.pem
key $secrets/user.key
remote-cert-tls server
tls-version-min 1.3
END
    sed "s,@WFOAL_HOOK@,$build/bin/openvpn-hook," "$top/packaging/openvpn/openvpn.conf.in" >>"$secrets/office.conf"
} 2>>"$logs/openssl.log"

start_openvpn_server() {
    start_until office 'Initialization Sequence Completed' nsenter --net=/run/netns/office openvpn \
        --server 10.8.0.0 255.255.255.0 --topology subnet --dev tun0 --local "$office" --dh none --keepalive 1 8 --verb 3 \
        --ca "$secrets/authority.pem" --cert "$secrets/office.pem" --key "$secrets/office.key" --tls-version-min 1.3 \
        --push 'redirect-gateway def1' --push 'dhcp-option DNS 10.20.0.53' --push 'dhcp-option DOMAIN corp.example'
    start_until office-dns 'started' nsenter --net=/run/netns/office dnsmasq --no-daemon --conf-file=/dev/null \
        --no-resolv --no-hosts --bind-interfaces --listen-address=10.20.0.53 --address=/intranet.corp.example/10.20.0.80
}

start_openvpn() {
    run_beside openvpn "$build/bin/vpnoalctl" --json run -- openvpn --config "$secrets/office.conf"
    # Which it says after its scripts have ended.
    wait_for_line openvpn 'Initialization Sequence Completed' ||
        failed 'OpenVPN under vpnoalctl run' 'Initialization Sequence Completed' "$(tail -n 12 "$logs/openvpn.log")"
}

openvpn_process() { pgrep -P "${process_ids[openvpn]}" -x openvpn; }

# end_openvpn STEP STATUS
end_openvpn() {
    wait_beside openvpn
    [ "$ended_with" -eq "$2" ] ||
        failed "$1" "vpnoalctl run exits with $2" "$ended_with: $(tail -n 8 "$logs/openvpn.log")"
    compare_snapshot "$1"
}

start_ipv6_sender() {
    run_into "$logs/ipv6-answers" ipv6 ping -6 -n -i 0.01 $anywhere6
}

# Two deliberate pings are the control, one before and one after, which is longer than any other.
ping6() { ping -6 -n -q -c 1 -W 5 "$@" $anywhere6; }

# The error of the guard is the one that programs see of a forbidden destination.
tcp6() { timeout 5 bash -c ": >/dev/tcp/$anywhere6/80"; }

# Packets that left beside the tunnel, on both access networks, and how many tries there were.
ipv6_beside() {
    local tries seen
    $in_user_namespace || wait_for_line leaks6-wifi "ICMP6, echo request.* length 1008\$" 5 ||
        { echo 'the control was not seen'; return; }
    $in_user_namespace || read_rest_of leaks6-cellular
    tries=$(sed -n 's/ packets transmitted.*//p' "$logs/ipv6-answers")
    seen=$(($(seen_on wifi leaks6) + $(seen_on cellular leaks6)))
    echo "$((seen - 2)) of $tries tries beside the tunnel; the 2 controls were seen"
}

tell_openvpn_connection() {
    expect 'its server listens, in a namespace of its own' "$office:1194" in_office ss -H -l -n -u
    expect 'control: IPv6 leaves over Wi-Fi' '1 received' ping6
    start_openvpn
    expect 'OpenVPN is connected, the hook has configured it' 'norvatun0 .*10\.8\.0\.2/24' ip -br address show norvatun0
    expect 'with TLS 1.3' 'Control Channel: TLSv1\.3' gateway_log office 'Control Channel: TLSv1\.3'
    expect 'all traffic goes into the tunnel' 'dev norvatun0' ip route get 198.18.0.7
    expect 'but encrypted packets go over Wi-Fi' 'via 192\.0\.2\.1 dev eth0' ip route get "$office"
    expect "DNS server of the tunnel, as OpenVPN's server says" 'norvatun0.*10\.20\.0\.53' "$resolvectl" dns norvatun0
    expect 'DNS query, answered behind the server' 'intranet\.corp\.example: 10\.20\.0\.80 .*link: norvatun0' \
        "$resolvectl" query intranet.corp.example
    expect 'ping through the tunnel' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
    expect 'IPv6 beside the tunnel is rejected' 'Connection refused' tcp6
}

tell_openvpn_moves() {
    local before changed
    start_traffic
    start_ipv6_sender
    before=$(outer_packets cellular)
    step_began=$(now)
    changed=$step_began
    wifi_off
    expect 'Wi-Fi is lost: on over the cellular network' '^[0-9]+ ms' outage "$changed" outer_has_moved cellular "$before"
    expect 'encrypted packets go there' 'via 203\.0\.113\.1 dev rmnet0' ip route get "$office"
    before=$(outer_packets wifi)
    step_began=$(now)
    changed=$step_began
    wifi_on
    ipv6_on eth0 2001:db8:1 100
    expect 'Wi-Fi is back, with IPv6: on over Wi-Fi' '^[0-9]+ ms' outage "$changed" outer_has_moved wifi "$before"
    expect 'encrypted packets go there again' 'via 192\.0\.2\.1 dev eth0' ip route get "$office"
    stop_beside ipv6 INT
    stop_traffic
}

tell_openvpn_end() {
    kill -KILL "$(openvpn_process)"
    end_openvpn 'OpenVPN is killed: everything is restored' 137
    expect 'traffic goes out over Wi-Fi as before' 'via 192\.0\.2\.1 dev eth0' ip route get 198.18.0.7
    expect 'control: IPv6 leaves again' '1 received' ping6 -s 1000
    expect 'IPv6 beside the tunnel in between' '^0 of [1-9][0-9]* tries' ipv6_beside
    start_openvpn
    expect 'it starts again: ping through the tunnel' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
    kill -TERM "${process_ids[openvpn]}"
    end_openvpn 'and ends: everything is restored' 0
    stop_beside office
}

tell_openvpn() {
    local reason
    chapter 'OpenVPN itself, with the hook of the plug-in'
    reason=$(why_no_openvpn)
    if [ -n "$reason" ]; then
        skipped 'OpenVPN through the plug-in' "$reason"
        return
    fi
    step_began=$(now)
    prepare_ipv6 wifi eth0 2001:db8:1 100
    prepare_ipv6 cellular rmnet0 2001:db8:2 700
    count_outer_packets wifi
    count_outer_packets cellular
    start_captures6
    write_openvpn_files
    start_openvpn_server
    prepared 'keys were made, a server was started'
    take_snapshot
    tell_openvpn_connection
    tell_openvpn_moves
    tell_openvpn_end
}
