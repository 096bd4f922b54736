// SPDX-License-Identifier: Apache-2.0
//
// What the services tell systemd: that they are ready, that their loop turns, and that they end.
#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>

#include "Daemons.h"

namespace {

using testsupport::ChildProcess;

constexpr char socketPath[] = "/run/notify";

/// The socket on which systemd listens.
class NotifySocket {
public:
    NotifySocket() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, socketPath);
        unlink(socketPath);
        EXPECT_EQ(0, bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    /// The next message, or "nothing" when none comes in time.
    std::string next(int milliseconds = 10000) const
    {
        pollfd ready{mSocket.get(), POLLIN, 0};
        if (poll(&ready, 1, milliseconds) != 1) return "nothing";
        std::array<char, 256> text{};
        const ssize_t size = recv(mSocket.get(), text.data(), text.size(), 0);
        return {text.data(), static_cast<std::size_t>(size > 0 ? size : 0)};
    }

private:
    UniqueFd mSocket;
};

class ServiceNotifyTest : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        setenv("NOTIFY_SOCKET", socketPath, 1);
        unsetenv("WATCHDOG_PID");
    }
    void TearDown() override
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }
    static std::string program() { return std::string(WFOAL_BUILD_DIR "/bin/") + GetParam(); }

    ChildProcess mBus;
};

TEST_P(ServiceNotifyTest, ReadinessTurnsOfTheLoopAndEndAreTold)
{
    setenv("WATCHDOG_USEC", "200000", 1);
    const NotifySocket manager;
    ChildProcess service({program()});
    EXPECT_EQ("READY=1", manager.next());
    EXPECT_EQ("WATCHDOG=1", manager.next());
    EXPECT_EQ("WATCHDOG=1", manager.next());
    service.sendSignal(SIGTERM);
    std::string last = manager.next();
    while (last == "WATCHDOG=1")
        last = manager.next();
    EXPECT_EQ("STOPPING=1", last);
    EXPECT_EQ(0, service.wait());
}

TEST_P(ServiceNotifyTest, WithoutAWatchdogNothingIsToldWhileNothingHappens)
{
    unsetenv("WATCHDOG_USEC");
    const NotifySocket manager;
    const ChildProcess service({program()});
    EXPECT_EQ("READY=1", manager.next());
    EXPECT_EQ("nothing", manager.next(500));
}

INSTANTIATE_TEST_SUITE_P(Services, ServiceNotifyTest,
                         testing::Values("vesk-connectionmanager", "vesk-certificatemanager"),
                         [](const auto& service) { return std::string(service.param).substr(5); });

}  // namespace
