// SPDX-License-Identifier: Apache-2.0
//
// Datagrams at a steady pace, of either family.
#ifndef WFOAL_TEST_STEADYSENDER_H
#define WFOAL_TEST_STEADYSENDER_H

#include <arpa/inet.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "handles/UniqueFd.h"

namespace testsupport {

/// Sends a datagram to port 9999 every two milliseconds, as long as it lives.
class SteadySender {
public:
    /// `device` is the one that packets leave by; when it is empty the routes say it.
    explicit SteadySender(const char* address, std::string device = {}) : mDevice(std::move(device))
    {
        auto& ipv6 = reinterpret_cast<sockaddr_in6&>(mTarget);
        auto& ipv4 = reinterpret_cast<sockaddr_in&>(mTarget);
        if (inet_pton(AF_INET6, address, &ipv6.sin6_addr) == 1) {
            ipv6.sin6_family = AF_INET6;
            ipv6.sin6_port = htons(9999);
        } else {
            ipv4.sin_family = AF_INET;
            ipv4.sin_port = htons(9999);
            inet_pton(AF_INET, address, &ipv4.sin_addr);
        }
        mThread = std::thread([this] { run(); });
    }
    SteadySender(const SteadySender&) = delete;
    SteadySender& operator=(const SteadySender&) = delete;
    ~SteadySender()
    {
        mEnds = true;
        mThread.join();
    }

    /// That had a route; the guard may have refused them.
    int sent() const { return mSent; }

private:
    void run()
    {
        const UniqueFd file(socket(mTarget.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const auto length = static_cast<socklen_t>(mDevice.size());
        setsockopt(file.get(), SOL_SOCKET, SO_BINDTODEVICE, mDevice.c_str(), length);
        const socklen_t size = mTarget.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        while (!mEnds) {
            const ssize_t sent =
                sendto(file.get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&mTarget), size);
            if (sent == 1 || errno == EPERM) ++mSent;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    sockaddr_storage mTarget{};
    std::string mDevice;
    std::atomic<bool> mEnds{false};
    std::atomic<int> mSent{0};
    std::thread mThread;
};

}  // namespace testsupport

#endif
