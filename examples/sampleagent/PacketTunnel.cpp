// SPDX-License-Identifier: Apache-2.0
#include "PacketTunnel.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace sampleagent {

namespace {

constexpr std::size_t largestPacket = 65536;
constexpr int greetings = 20;
constexpr int greetingMilliseconds = 250;

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

OuterSocket::OuterSocket() : mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    if (!mSocket.valid()) fail("UDP socket");
}

void OuterSocket::listen(in_port_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    mGateway = true;
    if (bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("UDP port");
}

bool OuterSocket::greet(const sockaddr_in& gateway)
{
    mPeer = gateway;
    if (connect(mSocket.get(), reinterpret_cast<const sockaddr*>(&mPeer), sizeof mPeer) != 0)
        fail("way to the gateway");
    char answer = 0;
    for (int i = 0; i < greetings; ++i) {
        send(nullptr, 0);
        pollfd socket{mSocket.get(), POLLIN, 0};
        if (poll(&socket, 1, greetingMilliseconds) > 0 && recv(mSocket.get(), &answer, sizeof answer, 0) == 0)
            return true;
    }
    return false;
}

// A datagram that the network refuses is lost, as datagrams may be.
void OuterSocket::send(const void* data, std::size_t size) const
{
    if (mPeer.sin_port == 0) return;
    const auto* peer = mGateway ? reinterpret_cast<const sockaddr*>(&mPeer) : nullptr;
    (void)sendto(mSocket.get(), data, size, 0, peer, mGateway ? sizeof mPeer : 0);
}

void OuterSocket::receiveInto(int device)
{
    std::array<char, largestPacket> packet;
    sockaddr_in sender{};
    socklen_t senderSize = sizeof sender;
    const ssize_t size =
        recvfrom(mSocket.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (size < 0) return;  // for example an ICMP error of an earlier datagram
    if (mGateway) mPeer = sender;
    if (size > 0) {
        // The kernel refuses what is no IP packet.
        (void)!write(device, packet.data(), static_cast<std::size_t>(size));
    } else if (mGateway) {
        send(nullptr, 0);
    }
}

void OuterSocket::sendFrom(int device)
{
    std::array<char, largestPacket> packet;
    const ssize_t size = read(device, packet.data(), packet.size());
    if (size > 0) send(packet.data(), static_cast<std::size_t>(size));
}

bool pumpPackets(OuterSocket& outer, int device, int stop)
{
    std::array<pollfd, 3> watched{{{stop, POLLIN, 0}, {device, POLLIN, 0}, {outer.descriptor(), POLLIN, 0}}};
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0) {
            if (errno == EINTR) continue;
            fail("poll");
        }
        if (watched[0].revents != 0) return true;
        if ((watched[1].revents & (POLLERR | POLLHUP)) != 0) return false;
        if (watched[1].revents != 0) outer.sendFrom(device);
        if (watched[2].revents != 0) outer.receiveInto(device);
    }
}

}  // namespace sampleagent
