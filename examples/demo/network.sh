# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The demo's networks, each a network namespace: this one is the handset.
#
#     handset                  access network                gateway
#     eth0 192.0.2.10 -------- 192.0.2.1
#                              198.51.100.1 ---------------- eth0 198.51.100.2    lo 10.20.0.53 (DNS), 10.20.0.80
#     norvatun0 10.8.0.2 ........... packets in UDP datagrams ........... norvatun0 10.8.0.1

in_access() { nsenter --net=/run/netns/access "$@"; }
in_gateway() { nsenter --net=/run/netns/gateway "$@"; }

without_ipv6() {
    "$@" sh -c 'echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6; echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6' \
        2>/dev/null || true
}

build_networks() {
    ip netns add access
    ip netns add gateway
    without_ipv6 env
    without_ipv6 in_access
    without_ipv6 in_gateway

    ip link add eth0 type veth peer name handset netns access
    ip address add 192.0.2.10/24 dev eth0
    ip link set eth0 up
    in_access ip address add 192.0.2.1/24 dev handset
    in_access ip link set handset up
    in_access ip link add gateway type veth peer name eth0 netns gateway
    in_access ip address add 198.51.100.1/24 dev gateway
    in_access ip link set gateway up
    in_access sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
    ip route add default via 192.0.2.1

    in_gateway ip link set lo up
    in_gateway ip address add 10.20.0.53/32 dev lo
    in_gateway ip address add 10.20.0.80/32 dev lo
    in_gateway ip address add 198.51.100.2/24 dev eth0
    in_gateway ip link set eth0 up
    in_gateway ip route add default via 198.51.100.1
    # What comes out of the tunnel for port 9999 is counted, by a tool that knows nothing of the tunnel.
    in_gateway nft -f - <<'END'
table ip probe {
    counter arrived { }
    chain arriving {
        type filter hook input priority 0
        udp dport 9999 counter name arrived
    }
}
END
}

# Where there is no tun device to be had, the tunnel's device is a plain link to the gateway.
build_plain_link() {
    ip link add norvatun0 type veth peer name norvatun0 netns gateway
    ip address add 10.8.0.2 peer 10.8.0.1/24 dev norvatun0
    ip link set norvatun0 mtu 1400 up
    in_gateway ip address add 10.8.0.1 peer 10.8.0.2/24 dev norvatun0
    in_gateway ip link set norvatun0 mtu 1400 up
}

packets_that_arrived() {
    in_gateway nft list counter ip probe arrived | awk '/packets/ { print $2 }'
}
