#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
#
# story.sh BUILD: what demo.sh shows, once it has everything and is in private namespaces. BUILD is the build folder.
set -euo pipefail
build=$1
here=$(dirname "${BASH_SOURCE[0]}")
top=$(cd "$here/../.." && pwd)
# As the first process of its namespaces this one ignores what it does not trap.
trap 'exit 130' INT TERM HUP
trap 'failed "preparation ($BASH_COMMAND)" "success" "exit status $?"' ERR

# shellcheck source=steps.sh
. "$here/steps.sh"
# shellcheck source=network.sh
. "$here/network.sh"
# shellcheck source=../../tests/support/daemons.sh
. "$top/tests/support/daemons.sh"

resolvectl=$daemons_folder/bin/resolvectl
export VKLOG_TARGET=stderr VKLOG_LEVEL=6
logs=/run/demo
mkdir $logs

# start_until LOG REGEX COMMAND...: starts a command and returns when a line of its output matches. Its id is $started.
start_until() {
    local log=$1 regex=$2 line lines
    shift 2
    mkfifo "$log.pipe"
    "$@" > >(tee "$log" >"$log.pipe") 2>&1 &
    started=$!
    exec {lines}<"$log.pipe"
    while IFS= read -r line <&"$lines"; do
        if [[ $line =~ $regex ]]; then
            cat <&"$lines" >/dev/null & # keeps the pipe empty
            exec {lines}<&-
            rm "$log.pipe"
            return 0
        fi
    done
    failed "start of $1" "a line like /$regex/" "$(cat "$log")"
}

snapshot_ip() { ip -d address; ip rule; ip route show table all; }
snapshot_nft() { nft list ruleset; }
snapshot_resolvectl() { "$resolvectl" dns; "$resolvectl" domain; "$resolvectl" default-route; }

take_snapshot() {
    ip_before=$(snapshot_ip)
    nft_before=$(snapshot_nft)
    resolvectl_before=$(snapshot_resolvectl)
}

compare_snapshot() {
    expect_same 'ip: addresses, rules and routes are identical' "$ip_before" "$(snapshot_ip)"
    expect_same 'nft: the rules are identical' "$nft_before" "$(snapshot_nft)"
    expect_same 'resolvectl: the DNS settings are identical' "$resolvectl_before" "$(snapshot_resolvectl)"
}

# The sample agent on a tun device; or the command-line tool on the plain link, which carries the packets itself.
connect_tunnel() {
    local profile=$1
    if $have_tun; then
        start_until $logs/agent.log '^ready' "$build/bin/sampleagent" connect "$profile" 198.51.100.2 4500
        agent=$started
    else
        "$build/bin/vpnoalctl" apply "$profile" >$logs/agent.log 2>&1 ||
            failed 'vpnoalctl apply' 'exit status 0' "$(cat $logs/agent.log)"
    fi
}

disconnect_tunnel() {
    local status=0
    if $have_tun; then
        kill -TERM "$agent"
        wait "$agent" || status=$?
    else
        "$build/bin/vpnoalctl" restore >>$logs/agent.log 2>&1 || status=$?
    fi
    [ $status -eq 0 ] || failed 'restore' 'exit status 0' "$status: $(tail -n 5 $logs/agent.log)"
}

# A datagram to port 9999 behind the gateway, then a ping: the tunnel keeps their order, so when the ping is answered the
# datagram is there or will never be. Nothing is known after a fixed wait.
arrivals_of_one_packet() {
    local before
    before=$(packets_that_arrived)
    (echo demo >/dev/udp/10.20.0.80/9999) 2>/dev/null || true
    ping -n -q -c 1 -W 5 10.20.0.80 >/dev/null || { echo 'no answer to ping'; return; }
    echo $(($(packets_that_arrived) - before)) arrived
}

chapter 'Three private networks: a handset, its access network, the gateway'
build_networks
expect 'the gateway is reached from the handset' '1 received' ping -n -q -c 1 -W 5 198.51.100.2
expect 'the network behind the gateway is not' '^[^0-9]*(1 packets transmitted, 0 received|connect:)|unreachable' \
    ping -n -c 1 -W 5 10.20.0.80

chapter 'A resolver: systemd-resolved on a bus of its own'
start_dbus
start_resolved
"$resolvectl" dns eth0 192.0.2.1
"$resolvectl" domain eth0 access.example
expect 'it answers, and knows the handset'"'"'s own DNS server' 'eth0.*192\.0\.2\.1' "$resolvectl" dns eth0
start_until $logs/dns.log 'started' nsenter --net=/run/netns/gateway dnsmasq --no-daemon --conf-file=/dev/null \
    --no-resolv --no-hosts --bind-interfaces --listen-address=10.20.0.53 --address=/intranet.corp.example/10.20.0.80
expect 'a DNS server listens behind the gateway' '10\.20\.0\.53:53' in_gateway ss -H -l -n -u

have_tun=true
if ! (: <>/dev/net/tun) 2>/dev/null; then
    have_tun=false
    build_plain_link
fi
take_snapshot
logs_on_failure=("$logs/agent.log" "$logs/gateway.log")

if $have_tun; then
    chapter 'The sample agent loads the plug-in and brings up the tunnel (a sample: not secure)'
    start_until $logs/gateway.log '^ready' \
        nsenter --net=/run/netns/gateway "$build/bin/sampleagent" gateway "$here/profile.json" 4500
    connect_tunnel "$here/profile.json"
    expect 'its outer socket is bound to the physical interface' '192\.0\.2\.10%eth0.*198\.51\.100\.2:4500' ss -H -n -u
    expect 'the tunnel device is up with its address' 'norvatun0 .*10\.8\.0\.2 peer 10\.8\.0\.1/24' ip -br address show norvatun0
else
    chapter 'The command-line tool loads the plug-in and configures the tunnel'
    skipped 'packet tunnel over UDP' 'because this user may not open /dev/net/tun'
    tell 'norvatun0 is a plain link to the gateway instead; vpnoalctl configures it through the plug-in.'
    connect_tunnel "$here/profile.json"
fi

chapter 'What the plug-in configured, as other tools see it'
expect 'route to the network behind the gateway:' '^10\.20\.0\.0/16 via 10\.8\.0\.1 dev norvatun0' ip route
expect 'all other traffic goes into the tunnel:' '^0\.0\.0\.0/1 via 10\.8\.0\.1 dev norvatun0' ip route
expect 'in two halves:' '^128\.0\.0\.0/1 via 10\.8\.0\.1 dev norvatun0' ip route
expect 'the handset'"'"'s own default route stays:' '^default via 192\.0\.2\.1 dev eth0' ip route
expect 'the kernel would send to 203.0.113.7:' 'dev norvatun0' ip route get 203.0.113.7
expect 'DNS server of the tunnel:' 'norvatun0.*10\.20\.0\.53' "$resolvectl" dns norvatun0
expect 'DNS domain of the tunnel:' 'norvatun0.*corp\.example' "$resolvectl" domain norvatun0
expect 'filter in force:' 'oifname "norvatun0".*udp dport 9999.*drop' nft list ruleset

chapter 'Traffic through the tunnel'
expect 'ping through the tunnel' '1 received' ping -n -q -c 1 -W 5 10.20.0.80
expect 'DNS query, answered by the server behind the gateway:' 'intranet\.corp\.example: 10\.20\.0\.80 .*link: norvatun0' \
    "$resolvectl" query intranet.corp.example
expect 'the C library asks the same way:' '10\.20\.0\.80' getent ahostsv4 intranet.corp.example
expect 'a packet to UDP port 9999 is dropped by the filter:' '^0 arrived' arrivals_of_one_packet

chapter 'Restore'
disconnect_tunnel
compare_snapshot

chapter 'Control: the same tunnel without the filter rule'
sed '/"filter"/,/^    \]/d; s/^    \],$/    ]/' "$here/profile.json" >$logs/no-filter.json
connect_tunnel $logs/no-filter.json
expect 'the same packet now arrives:' '^1 arrived' arrivals_of_one_packet
disconnect_tunnel
compare_snapshot

echo
if [ $steps_skipped -gt 0 ]; then
    echo "${good}$steps_done steps verified, $steps_skipped skipped.${plain}"
else
    echo "${good}$steps_done steps verified.${plain}"
fi
