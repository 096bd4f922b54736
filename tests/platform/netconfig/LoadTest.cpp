// SPDX-License-Identifier: Apache-2.0
//
// Loading and unloading the library, as an agent does with the plug-in that uses it. Not linked against it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Daemons.h"
#include "KernelState.h"

using namespace testsupport;

namespace {

using Request = int (*)(const char*);

constexpr char library[] = WFOAL_BUILD_DIR "/lib/libVkNetConfigLib.so";

#if defined(__SANITIZE_THREAD__)
// The thread sanitizer's suppression of a library does not survive its unloading.
void* const keptLoaded = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_NODELETE);
#endif

std::ptrdiff_t entriesOf(const char* folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), {});
}

void* loaded()
{
    void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle, nullptr) << dlerror();
    return handle;
}

int request(void* handle, const char* function, const std::string& argument)
{
    return reinterpret_cast<Request>(dlsym(handle, function))(argument.c_str());
}

}  // namespace

TEST(LoadTest, TwoHundredLoadsWithRequestsLeaveNothingBehind)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    setenv("VKLOG_LEVEL", "3", 1);
    makeInterface();
    const std::string before = networkSnapshot();
    std::ptrdiff_t descriptors = 0;
    for (int round = 0; round < 200; ++round) {
        void* handle = loaded();
        ASSERT_EQ(request(handle, "CmAddInterfaceCfg2", requestWithRoutes(3)), 0);
        ASSERT_EQ(request(handle, "CmDelInterfaceCfg", "vpn0"), 0);
        ASSERT_EQ(dlclose(handle), 0);
        if (round == 0) descriptors = entriesOf("/proc/self/fd");
    }
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
    EXPECT_EQ(entriesOf("/proc/self/task"), 1);
    EXPECT_EQ(outputOf("grep -c libVkNetConfigLib /proc/" + std::to_string(getpid()) + "/maps"), "0\n");
    EXPECT_EQ(networkSnapshot(), before);
}

TEST(LoadTest, AnUnloadedLibraryLeavesItsConfigurationAndTheNextOneTakesItBack)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    makeInterface();
    const std::string before = networkSnapshot();
    void* handle = loaded();
    ASSERT_EQ(request(handle, "CmAddInterfaceCfg2", requestWithRoutes(3)), 0);
    ASSERT_EQ(dlclose(handle), 0);
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    handle = loaded();
    EXPECT_EQ(routesOf("vpn0").size(), 3U);
    ASSERT_EQ(request(handle, "CmDelInterfaceCfg", "nothing0"), 0);
    EXPECT_EQ(networkSnapshot(), before);
    ASSERT_EQ(dlclose(handle), 0);
}

TEST(LoadTest, AStaticObjectOfTheAgentThatOutlivesThoseOfTheLibraryCanMakeRequests)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    setenv("VKLOG_LEVEL", "4", 1);
    makeInterface();
    const std::string before = networkSnapshot();
    const std::string agent = WFOAL_BUILD_DIR "/bin/lateRequestDriver " + std::string(library);
    EXPECT_EQ(outputOf(agent + " '" + requestWithRoutes(3) + "' vpn0; echo exit code $?"), "done\nexit code 0\n");
    EXPECT_EQ(networkSnapshot(), before);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST(LoadTest, WithTheWatcherOfDnsSettingsRunningAsWell)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
    const ChildProcess bus = startBus();
    const ChildProcess resolved = startDaemon(Daemon::resolved);
    setenv("VKLOG_TARGET", "stderr", 1);
    setenv("VKLOG_LEVEL", "4", 1);
    makeInterface();
    const std::string request = R"({"ifName":"vpn0","ipv4":{"dns":["0x0100080a"]}})";
    const std::string agent = WFOAL_BUILD_DIR "/bin/lateRequestDriver " + std::string(library);
    EXPECT_EQ(outputOf("timeout 20 " + agent + " '" + request + "' vpn0; echo exit code $?"), "done\nexit code 0\n");
    EXPECT_EQ(outputOf(daemonTool("resolvectl") + " dns vpn0").find("10.8.0.1"), std::string::npos);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}
