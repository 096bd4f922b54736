// SPDX-License-Identifier: Apache-2.0
//
// What `run` tells the service manager, and that it leaves the environment alone meanwhile.
#include "run/ServiceState.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "handles/UniqueFd.h"

static int changesOfTheEnvironment = 0;

// In place of the C library's for the whole program.
extern "C" int setenv(const char* name, const char* value, int replaces) noexcept
{
    ++changesOfTheEnvironment;
    static const auto next = reinterpret_cast<int (*)(const char*, const char*, int)>(dlsym(RTLD_NEXT, "setenv"));
    return next(name, value, replaces);
}

namespace {

// The service manager's socket: a file, or with '@' a name of the network namespace.
class Manager {
public:
    explicit Manager(std::string path) : mPath(std::move(path)), mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mPath.copy(address.sun_path, sizeof address.sun_path);
        if (mPath.front() == '@') address.sun_path[0] = '\0';
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + mPath.size());
        EXPECT_EQ(0, bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&address), size)) << mPath;
        setenv("NOTIFY_SOCKET", mPath.c_str(), 1);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    ~Manager()
    {
        unsetenv("NOTIFY_SOCKET");
        if (mPath.front() == '/') unlink(mPath.c_str());
    }

    // A datagram between two sockets of this machine is there when it has been sent.
    std::string received() const
    {
        char text[100];
        const ssize_t size = recv(mSocket.get(), text, sizeof text, MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(text, static_cast<std::size_t>(size));
    }

private:
    std::string mPath;
    UniqueFd mSocket;
};

std::string ownPath()
{
    return testing::TempDir() + fmt::format("notify.{}", getpid());
}

TEST(ServiceStateTest, ReportsGoToTheManagersSocket)
{
    const Manager manager(ownPath());
    const vpnoalctl::ServiceState state;
    state.reportReady();
    EXPECT_EQ("READY=1", manager.received());
    state.reportStopping();
    EXPECT_EQ("STOPPING=1", manager.received());
}

TEST(ServiceStateTest, SocketMayHaveNoFile)
{
    const Manager manager("@" + ownPath());
    const vpnoalctl::ServiceState state;
    state.reportReady();
    EXPECT_EQ("READY=1", manager.received());
}

TEST(ServiceStateTest, PathMayFillTheWholeAddress)
{
    const std::string folder = testing::TempDir();
    const Manager manager(folder + std::string(sizeof(sockaddr_un::sun_path) - folder.size(), 'n'));
    const vpnoalctl::ServiceState state;
    state.reportReady();
    EXPECT_EQ("READY=1", manager.received());
}

TEST(ServiceStateTest, CommandDoesNotInheritTheSocket)
{
    const Manager manager(ownPath());
    const vpnoalctl::ServiceState state;
    EXPECT_EQ(nullptr, std::getenv("NOTIFY_SOCKET"));
    state.reportReady();
    EXPECT_EQ(nullptr, std::getenv("NOTIFY_SOCKET"));
}

// Another thread may read it.
TEST(ServiceStateTest, ReportsLeaveTheEnvironmentAlone)
{
    const Manager manager(ownPath());
    const vpnoalctl::ServiceState state;
    changesOfTheEnvironment = 0;
    state.reportReady();
    state.reportStopping();
    EXPECT_EQ(0, changesOfTheEnvironment);
}

TEST(ServiceStateTest, WithoutAManagerNothingIsReported)
{
    const Manager manager(ownPath());
    unsetenv("NOTIFY_SOCKET");
    const vpnoalctl::ServiceState state;
    state.reportReady();
    EXPECT_EQ("nothing", manager.received());
}

TEST(ServiceStateTest, PathThatIsTooLongIsNobodys)
{
    const Manager manager(ownPath());
    setenv("NOTIFY_SOCKET", std::string(1000, 'n').c_str(), 1);
    const vpnoalctl::ServiceState state;
    state.reportReady();
    EXPECT_EQ("nothing", manager.received());
}

}  // namespace
