#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# What systemd.sh runs under its systemd: the template units of OpenVPN and WireGuard, with the programs themselves as
# client and server. The server is in a network namespace of its own, reached over eth0; 10.20.0.80 is behind both
# tunnels. A unit is ready when its tunnel carries; it is started again whichever of its processes is killed, and nothing
# leaves beside the tunnel while it waits for that; when it is stopped or fails for good, the network is as it was before.
set -euo pipefail
# What openvpn and wireguard-go expect, as the tests' folders do not have it.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
ln -sfn /run /var/run

failed() {
    echo "failed: $1"
    systemctl --no-pager status "$unit" || true
    cat "/run/$tunnel.log" /run/server.log || true
    diff <(echo "${before:-}") <(state) || true
    exit 1
}

# eventually WHAT COMMAND...: the command succeeds within 20 seconds.
eventually() {
    local end=$((SECONDS + 20))
    until "${@:2}" >/run/output 2>&1; do
        [ $SECONDS -lt $end ] || { cat /run/output; failed "$1"; }
        sleep 0.1
    done
    echo "$unit: $1"
}

# check WHAT COMMAND...: the command succeeds, at once.
check() {
    "${@:2}" >/run/output 2>&1 || { cat /run/output; failed "$1"; }
    echo "$unit: $1"
}

not() {
    ! "$@"
}

make_network() {
    ip netns add server
    ip link add eth0 type veth peer name eth0 netns server
    ip address add 192.0.2.10/24 dev eth0
    ip link set eth0 up
    ip netns exec server sh -c 'ip link set lo up; ip link set eth0 up; ip address add 192.0.2.1/24 dev eth0
        ip address add 198.51.100.2/32 dev lo; ip address add 10.20.0.80/32 dev lo
        ip route replace 192.0.2.0/24 dev eth0 src 198.51.100.2'  # later versions of wireguard-go do not say from where
    ip route add default via 192.0.2.1 dev eth0
    ip -6 address flush dev eth0
    ip -6 address add 2001:db8::10/64 dev eth0 nodad
    ip netns exec server sh -c 'ip -6 address add 2001:db8::1/64 dev eth0 nodad; nft -f -' <<'END'
table inet probe {
    counter ipv4 { }
    counter ipv6 { }
    chain seen {
        type filter hook prerouting priority raw
        iifname eth0 icmp type echo-request counter name ipv4
        iifname eth0 icmpv6 type echo-request counter name ipv6
    }
}
END
    mkdir -p /etc/vpnwfoal
    echo 'strict = on' >/etc/vpnwfoal/platform.conf
}

# What the server got beside the tunnel since the last call, of each family.
beside() {
    ip netns exec server nft reset counters table inet probe | awk '$1 == "packets" { printf "%s ", $2 }'
}

start_probes() {
    local target
    probes=()
    for target in 10.20.0.80 2001:db8::1; do
        ping -n -q -i 0.02 "$target" >/dev/null 2>&1 &
        probes+=($!)
    done
    beside >/dev/null
}

# end_probes: prints what they sent beside the tunnel.
end_probes() {
    kill "${probes[@]}"
    beside
}

make_certificates() {
    local new='openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes' side
    $new -x509 -keyout ca.key -subj /CN=authority -days 2 -out ca.pem
    for side in server client; do
        $new -keyout $side.key -subj /CN=$side.example -out $side.csr
        printf 'keyUsage=digitalSignature\nextendedKeyUsage=%sAuth\n' $side >$side.ext
        openssl x509 -req -in $side.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile $side.ext -out $side.pem
    done
}

start_openvpn_server() {
    rm -f /etc/openvpn
    mkdir -p /etc/openvpn/client
    cd /etc/openvpn/client
    make_certificates 2>/run/openssl.log || { cat /run/openssl.log; failed 'certificates'; }
    printf '%s\n' client 'remote 198.51.100.2' nobind 'ca ca.pem' 'cert client.pem' 'key client.key' \
        'remote-cert-tls server' 'tls-version-min 1.3' >office.conf
    ip netns exec server openvpn --server 10.8.0.0 255.255.255.0 --topology subnet --dev tun0 --local 198.51.100.2 \
        --ca ca.pem --cert server.pem --key server.key --dh none --tls-version-min 1.3 --keepalive 1 8 \
        --push 'redirect-gateway def1' >/run/server.log 2>&1 &
}

start_wireguard_server() {
    local client server
    client=$(wg genkey) server=$(wg genkey)
    WG_PROCESS_FOREGROUND=1 ip netns exec server wireguard-go -f wgserver >>/run/server.log 2>&1 &
    eventually 'the server of WireGuard runs' ip netns exec server wg show wgserver
    printf '[Interface]\nPrivateKey = %s\nListenPort = 51820\n[Peer]\nPublicKey = %s\nAllowedIPs = 10.9.0.2/32\n' \
        "$server" "$(wg pubkey <<<"$client")" >/run/server.conf
    ip netns exec server sh -c 'wg setconf wgserver /run/server.conf; ip address add 10.9.0.1/24 dev wgserver
        ip link set wgserver up'
    rm -f /etc/wireguard
    mkdir -m 700 /etc/wireguard
    (umask 077 && printf '[Interface]\nPrivateKey = %s\nAddress = 10.9.0.2/24\n[Peer]\nPublicKey = %s\n%s\n' "$client" \
        "$(wg pubkey <<<"$server")" $'AllowedIPs = 0.0.0.0/0\nEndpoint = 198.51.100.2:51820' >/etc/wireguard/home.conf)
}

state() {
    ip -4 -o address
    ip route show table all type unicast
    ip rule
    nft list ruleset
    ip -br link | grep -v eth0
}

sends_beside() {
    local ipv4 ipv6
    read -r ipv4 ipv6 <<<"$(beside)"
    [ "$ipv4" -gt 0 ] && [ "$ipv6" -gt 0 ]
}

is_as_before() {
    [ "$(state)" = "$before" ]
}

# An openvpn that is killed leaves its own route to the server, and nothing else of it is there.
is_as_before_a_kill() {
    ip route delete 198.51.100.2 via 192.0.2.1 proto boot || true
    is_as_before
}

has() {
    [ "$(systemctl show --value -p "$1" "$unit")" = "$2" ]
}

main_pid() {
    systemctl show --value -p MainPID "$unit"
}

# The processes of the unit that run the program.
pids_of() {
    local group
    group=/sys/fs/cgroup$(systemctl show --value -p ControlGroup "$unit")
    xargs -r ps -o pid=,comm= -p <"$group/cgroup.procs" 2>/dev/null | awk -v name="$1" '$2 == name { print $1 }'
}

carries() {
    ping -n -q -c 1 -W 1 10.20.0.80 && ip route get 198.51.100.80 | grep -q 'dev norvatun0'
}

# kill_program PROGRAM: the VPN program of the unit.
kill_program() {
    local victim
    victim=$(pids_of "$1")
    kill -KILL "$victim"
    eventually "$1 is killed" not kill -0 "$victim"
}

runs() {
    has ActiveState active && carries
}

runs_anew() {
    local pid
    pid=$(main_pid)
    [ "$pid" != 0 ] && [ "$pid" != "$1" ] && runs
}

guards() {
    nft list table inet vknetconfig-guard-norvatun0
}

has_one() {
    [ "$(pids_of "$1" | wc -l)" = 1 ]
}

# try_unit PROGRAM: what $unit does, whose agent runs the VPN program.
try_unit() {
    local program=$1 pid
    before=$(state)
    start_probes
    eventually 'both families leave without a tunnel' sends_beside
    end_probes >/dev/null
    check 'it starts' systemctl start "$unit"
    check 'it is ready when the tunnel carries' carries
    check 'it is active' has ActiveState active
    check 'it leaves no core dump' has LimitCORE 0

    pid=$(main_pid)
    check 'it restarts' systemctl restart "$unit"
    check 'it carries after the restart' runs_anew "$pid"

    start_probes
    kill_program "$program"
    eventually "it carries after $program was killed" carries
    eventually 'it is active again' has ActiveState active
    check "nothing has left beside the tunnel since $program was killed" [ "$(end_probes)" = '0 0 ' ]

    pid=$(main_pid)
    check 'what restores waits for its end' systemctl is-active "${unit/@/-restore@}"
    start_probes
    kill -KILL "$pid"
    eventually 'it waits to be started again' has SubState auto-restart
    check 'the guard stays meanwhile' guards
    eventually 'it is started again when its agent is killed' runs_anew "$pid"
    check 'nothing has left beside the tunnel' [ "$(end_probes)" = '0 0 ' ]
    check "there is one $program" has_one "$program"

    check 'it stops' systemctl stop "$unit"
    check 'it has stopped without a failure' has ActiveState inactive
    check 'it leaves the network as before' is_as_before
    eventually 'what restores has stopped too' not systemctl is-active --quiet "${unit/@/-restore@}"

    check 'it starts again' systemctl start "$unit"
    kill -KILL "$(main_pid)"
    eventually 'it waits to be started again' has SubState auto-restart
    check 'the guard stays meanwhile too' guards
    check 'it stops while it waits' systemctl stop "$unit"
    eventually 'it leaves the network as before, whoever was killed' is_as_before_a_kill

    # With commands wireguard-go is not replaced; its agent ends.
    [ "$program" = openvpn ] || sed -i 's/^\[Interface\]$/&\nPostUp = true/' /etc/wireguard/home.conf
    check 'it starts with its commands' systemctl start "$unit"
    start_probes
    kill_program "$program"
    eventually "it waits to be started again after $program was killed" has SubState auto-restart
    check 'the guard stays meanwhile, once more' guards
    eventually "it is started again when $program was killed" runs
    check 'nothing has left beside the tunnel meanwhile' [ "$(end_probes)" = '0 0 ' ]
    kill_program "$program"
    eventually "it waits again after $program was killed" has SubState auto-restart
    check 'it stops then, too' systemctl stop "$unit"
    eventually "it leaves the network as before, although $program was killed" is_as_before_a_kill

    # As after a configuration that is wrong.
    check 'it starts once more' systemctl start "$unit"
    printf '[Service]\nRestartPreventExitStatus=SIGKILL\n' >"/run/units/${unit%@*}@.service.d/once.conf"
    systemctl daemon-reload
    kill -KILL "$(main_pid)"
    eventually 'it fails for good' has ActiveState failed
    eventually 'it leaves the network as before then, too' is_as_before_a_kill
}

unit=servers tunnel=server
for name in vpnoal-openvpn vpnoal-wg; do
    mkdir "/run/units/$name@.service.d"
    printf '[Service]\nStandardOutput=append:/run/%%i.log\nStandardError=inherit\n' >"/run/units/$name@.service.d/log.conf"
done
systemctl daemon-reload
make_network
start_openvpn_server
start_wireguard_server
eventually 'the server of OpenVPN runs' grep -q 'Initialization Sequence Completed' /run/server.log

unit=vpnoal-openvpn@office.service tunnel=office
try_unit openvpn
unit=vpnoal-wg@home.service tunnel=home
try_unit wireguard-go
echo 'all done'
