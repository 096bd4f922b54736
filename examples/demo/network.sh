# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The demo's networks, each a network namespace; this one is the handset. Every namespace has a function that runs a
# command in it: in_wifi, in_cellular, in_internet, in_gateway, in_asked, in_refused, in_office.
#
#     handset                   access networks            internet                   gateways
#     eth0   192.0.2.10 ------- wifi      192.0.2.1 ------ 100.64.1.1
#     rmnet0 203.0.113.10 ----- cellular  203.0.113.1 ---- 100.64.2.1
#                                                          198.51.100.1 ------------ gateway 198.51.100.2
#                                                          198.51.100.5 ------------ asked   198.51.100.6
#                                                          198.51.100.9 ------------ refused 198.51.100.10
#                                                          198.51.100.13 ----------- office  198.51.100.14
#     norvatun0 10.8.0.2 ............. packets in TLS ............................. norvatun0 10.8.0.1
#                                                                                    lo 10.20.0.53 (DNS), 10.20.0.80

namespaces=(wifi cellular internet gateway asked refused office)

in_wifi() { nsenter --net=/run/netns/wifi "$@"; }
in_cellular() { nsenter --net=/run/netns/cellular "$@"; }
in_internet() { nsenter --net=/run/netns/internet "$@"; }
in_gateway() { nsenter --net=/run/netns/gateway "$@"; }
in_asked() { nsenter --net=/run/netns/asked "$@"; }
in_refused() { nsenter --net=/run/netns/refused "$@"; }
in_office() { nsenter --net=/run/netns/office "$@"; }

without_ipv6() {
    "$@" sh -c 'echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6; echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6' \
        2>/dev/null || true
}

# connect_access NAMESPACE INTERFACE HANDSET ROUTER METRIC UPLINK INTERNET: an access network of the handset.
connect_access() {
    ip link add "$2" type veth peer name handset netns "$1"
    ip address add "$3/24" dev "$2"
    ip link set "$2" up
    ip route add default via "$4" dev "$2" metric "$5"
    "in_$1" ip -batch - <<END
address add $4/24 dev handset
link set handset up
link add uplink type veth peer name $1 netns internet
address add $6/30 dev uplink
link set uplink up
route add default via $7
END
    "in_$1" sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
    in_internet ip -batch - <<END
address add $7/30 dev $1
link set $1 up
route add ${3%.*}.0/24 via $6
END
}

# connect_gateway NAMESPACE GATEWAY INTERNET
connect_gateway() {
    in_internet ip -batch - <<END
link add $1 type veth peer name eth0 netns $1
address add $3/30 dev $1
link set $1 up
END
    "in_$1" ip -batch - <<END
link set lo up
address add $2/30 dev eth0
link set eth0 up
route add default via $3
address add 10.20.0.53/32 dev lo
address add 10.20.0.80/32 dev lo
END
}

build_networks() {
    local namespace
    without_ipv6 env
    for namespace in "${namespaces[@]}"; do
        ip netns add "$namespace"
        without_ipv6 "in_$namespace"
    done
    in_internet sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
    connect_access wifi eth0 192.0.2.10 192.0.2.1 100 100.64.1.2 100.64.1.1
    connect_access cellular rmnet0 203.0.113.10 203.0.113.1 700 100.64.2.2 100.64.2.1
    connect_gateway gateway 198.51.100.2 198.51.100.1
    connect_gateway asked 198.51.100.6 198.51.100.5
    connect_gateway refused 198.51.100.10 198.51.100.9
    connect_gateway office 198.51.100.14 198.51.100.13
    count_arrivals
}

# What comes out of the tunnel for two ports is counted by a tool that knows nothing of the tunnel.
count_arrivals() {
    in_gateway nft -f - <<'END'
table ip probe {
    counter port9998 { }
    counter port9999 { }
    chain arriving {
        type filter hook input priority 0
        udp dport 9998 counter name port9998
        udp dport 9999 counter name port9999
    }
}
END
}

wifi_off() { ip link set eth0 down; }

# As the handset's own network manager leaves it when Wi-Fi is there: a link first, then a route.
wifi_on() {
    ip link set eth0 up
    settle
    ip route add default via 192.0.2.1 dev eth0 metric 100
}

# Where there is no tun device to be had, the tunnel's device is a plain link to the gateway.
build_plain_link() {
    ip link add norvatun0 type veth peer name norvatun0 netns gateway
    ip address add 10.8.0.2 peer 10.8.0.1/24 dev norvatun0
    ip link set norvatun0 mtu 1400 up
    in_gateway ip address add 10.8.0.1 peer 10.8.0.2/24 dev norvatun0
    in_gateway ip link set norvatun0 mtu 1400 up
}

packets_at() {
    in_gateway nft list counter ip probe "port$1" | awk '/packets/ { print $2 }'
}

# A datagram to a port behind the gateway, then a ping: the tunnel keeps their order, so when the ping is answered the
# datagram is there or will never be. Nothing is known after a fixed wait.
arrivals_at() {
    local before
    before=$(packets_at "$1")
    (echo demo >"/dev/udp/10.20.0.80/$1") 2>/dev/null || true
    ping -n -q -c 1 -W 5 10.20.0.80 >/dev/null || { echo 'no answer to ping'; return; }
    echo "$(($(packets_at "$1") - before)) arrived"
}
