# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# Captures on both access networks: of what belongs into the tunnel, of which nothing may be seen there, and of the ends
# of outer connections. In a user namespace tcpdump cannot give up root, so that a counter of nft takes its place.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
tunnelled='net 10.20.0.0/16 or net 10.8.0.0/24'
connection_ends='src host 192.0.2.10 and tcp dst port 443 and tcp[tcpflags] & (tcp-fin|tcp-rst) != 0'

# run_capture NAME NAMESPACE TCPDUMP-ARGUMENT...
run_capture() {
    local name=$1 namespace=$2
    shift 2
    start_until "$name" 'listening on' nsenter "--net=/run/netns/$namespace" \
        tcpdump -Z root -n -l --immediate-mode -i handset "$@"
}

# watch_access NAME FILTER NFT-MATCH...: both access networks, for packets that fit the filter of tcpdump, or one of the
# matches.
watch_access() {
    local name=$1 filter=$2 network
    shift 2
    for network in wifi cellular; do
        if $in_user_namespace; then
            "in_$network" nft -f - <<END
table netdev $name {
    counter seen { }
    chain leaving {
        type filter hook ingress device handset priority 0
        $(printf '%s counter name seen\n' "$@")
    }
}
END
        else
            run_capture "$name-$network" $network "$filter"
        fi
    done
}

start_captures() {
    watch_access leaks "$tunnelled" 'ip daddr { 10.20.0.0/16, 10.8.0.0/24 }' 'ip saddr { 10.20.0.0/16, 10.8.0.0/24 }'
}

start_captures6() { watch_access leaks6 "ip6 dst host $anywhere6" "ip6 daddr $anywhere6"; }

start_capture_of_ends() {
    run_capture capture-ends wifi -tt "$connection_ends"
}

# leak INTERFACE: the positive control. A ping that goes out beside the tunnel, as nothing else may, and of a length that
# nothing else has: $leak_length with its header.
leak() {
    leak_length=$((900 + RANDOM % 400))
    ping -n -q -c 1 -W 1 -I "$1" -s $((leak_length - 8)) 10.20.0.80 >/dev/null 2>&1 || true
}

# seen_on NETWORK [NAME]: packets that an access network has seen. tcpdump's own lines have no arrow.
seen_on() {
    local name=${2:-leaks}
    if $in_user_namespace; then
        "in_$1" nft list counter netdev "$name" seen | awk '/packets/ { print $2 }'
    else
        grep -c ' > ' "$logs/$name-$1.log" || true
    fi
}

# A capture keeps the order of packets: when the deliberate leak is seen, what came before it was seen too. A counter
# has counted when ping is back.
leaks_seen() {
    local network interface
    for network in wifi cellular; do
        interface=eth0
        [ $network = wifi ] || interface=rmnet0
        leak $interface
        $in_user_namespace || wait_for_line "leaks-$network" "10\.20\.0\.80: ICMP echo request.* length $leak_length\$" 5 ||
            { echo "$network: the leak was not seen"; return; }
        [ "$(seen_on $network)" = 1 ] || { echo "$network has seen $(seen_on $network) packets"; return; }
    done
    echo 'only the deliberate leak, once on each'
}

# The moment of the last end of an outer connection against the moment of going to sleep.
closed_before_sleep() {
    local slept
    wait_for_line capture-ends ' > 198\.51\.100\.2\.443' 5 || { echo 'no end of a connection was seen'; return; }
    slept=$(stat -c %.6Y /sys/power/state)
    awk -v closed="${matched_line%% *}" -v slept="${slept/,/.}" \
        'BEGIN { printf closed < slept ? "closed %.0f ms before the sleep\n" : "closed %.0f ms too late\n", 1000 * (slept - closed) }'
}
