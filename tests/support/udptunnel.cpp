// SPDX-License-Identifier: Apache-2.0
//
// The smallest VPN program: a tun device whose packets go as they are over UDP. For tests of what runs around one.
//
//     udptunnel DEVICE ADDRESS NETMASK PORT [SERVER]
//
// Without a server it is one, and answers whoever sent last. It prints "ready", and "notified" for SIGUSR1.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "TunDevice.h"
#include "handles/UniqueFd.h"

namespace {

sockaddr_in endpoint(const char* address, const char* port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<in_port_t>(std::atoi(port)));
    if (address != nullptr) inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

UniqueFd boundSocket(const char* port)
{
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in any = endpoint(nullptr, port);
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) std::perror("bind");
    return socket;
}

UniqueFd notifications()
{
    sigset_t notified;
    sigemptyset(&notified);
    sigaddset(&notified, SIGUSR1);
    sigprocmask(SIG_BLOCK, &notified, nullptr);
    return UniqueFd(signalfd(-1, &notified, SFD_CLOEXEC));
}

void say(const char* what)
{
    std::puts(what);
    static_cast<void>(std::fflush(stdout));
}

void carry(int device, int socket, int signals, sockaddr_in other)
{
    char packet[65536];
    const bool isServer = other.sin_addr.s_addr == 0;
    while (true) {
        pollfd watched[] = {{device, POLLIN, 0}, {socket, POLLIN, 0}, {signals, POLLIN, 0}};
        poll(watched, 3, -1);
        if (watched[0].revents != 0) {
            const ssize_t size = read(device, packet, sizeof packet);
            if (size < 0) return;
            if (other.sin_addr.s_addr != 0) {
                sendto(socket, packet, static_cast<std::size_t>(size), 0, reinterpret_cast<sockaddr*>(&other),
                       sizeof other);
            }
        }
        if (watched[1].revents != 0) {
            sockaddr_in sender{};
            socklen_t length = sizeof sender;
            const ssize_t size =
                recvfrom(socket, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&sender), &length);
            if (isServer) other = sender;
            if (size > 0) static_cast<void>(write(device, packet, static_cast<std::size_t>(size)) > 0);
        }
        if (watched[2].revents != 0) {
            signalfd_siginfo signal{};
            if (read(signals, &signal, sizeof signal) > 0) say("notified");
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 5) return 2;
    const UniqueFd signals = notifications();
    const UniqueFd socket = boundSocket(argv[4]);
    testsupport::TunDevice device(argv[1]);
    device.setAddress(argv[2], nullptr, argv[3]);
    say("ready");
    carry(device.descriptor(), socket.get(), signals.get(), endpoint(argc > 5 ? argv[5] : nullptr, argv[4]));
    return 0;
}
