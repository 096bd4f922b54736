#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""packets.py PLACE: prints a line for each packet of the tunnel that this network namespace sees, for the picture:
microseconds, lane, place. PLACE is wifi or cellular, where packets from the handset arrive in TLS (lane "outer") or
beside the tunnel (lane "beside"); or a gateway, where they come out of the tunnel (lane "through").

Of a burst in one lane only a line each two milliseconds is printed.
"""
import ipaddress
import socket
import struct
import sys
import time

ACCESS = ("wifi", "cellular")
EVERYTHING = 3  # ETH_P_ALL
TUNNELLED = [ipaddress.ip_network(text) for text in ("10.20.0.0/16", "10.8.0.0/24")]
ANYWHERE_IPV6 = ipaddress.ip_address("2001:db8:99::80")
GATEWAYS = {"198.51.100.2": 443, "198.51.100.6": 443, "198.51.100.14": 1194}


def laneOnAccess(packet):
    if packet[0] >> 4 == 6:
        return "beside" if ipaddress.ip_address(packet[24:40]) == ANYWHERE_IPV6 else None
    source, destination = (ipaddress.ip_address(packet[at:at + 4]) for at in (12, 16))
    if any(address in network for address in (source, destination) for network in TUNNELLED):
        return "beside"
    header = (packet[0] & 15) * 4
    port = struct.unpack("!H", packet[header + 2:header + 4])[0]
    return "outer" if GATEWAYS.get(str(destination)) == port else None


def laneOf(place, packet, interface, direction):
    if direction == socket.PACKET_OUTGOING or len(packet) < 28 or packet[0] >> 4 not in (4, 6):
        return None
    if place in ACCESS:
        return laneOnAccess(packet) if interface == "handset" else None
    return "through" if interface in ("norvatun0", "tun0") else None


def main():
    place = sys.argv[1]
    packets = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(EVERYTHING))
    print("watching", flush=True)
    last = {}
    while True:
        packet, (interface, _, direction, *_) = packets.recvfrom(128)
        now = time.time()
        lane = laneOf(place, packet, interface, direction)
        if lane and now - last.get(lane, 0) >= 0.002:
            last[lane] = now
            print("%.0f\t%s\t%s" % (now * 1e6, lane, place), flush=True)


main()
