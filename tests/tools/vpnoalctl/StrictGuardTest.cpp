// SPDX-License-Identifier: Apache-2.0
//
// Which entries of the undo log count as a strict guard. /run is the test's own.
#include "tunnel/StrictGuard.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FailingSetenv.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalctl {

namespace {

constexpr char strict[] = "interface norvatun0\nreject ipv4\nreject ipv6\nbypass 198.51.100.2/32\n";

class StrictGuardTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::create_directories(wfoal::undoLogFolder); }
    void TearDown() override { std::filesystem::remove_all(wfoal::undoLogFolder); }

    static wfoal::Origin here() { return *wfoal::currentOrigin(); }
    static std::string path(const std::string& networkNamespace = here().networkNamespace)
    {
        return std::string(wfoal::undoLogFolder) + "/guard-norvatun0@" + networkNamespace + ".journal";
    }
    static bool isStrict(const std::string& entry)
    {
        std::ofstream(path()) << entry;
        return hasStrictGuard();
    }
};

TEST_F(StrictGuardTest, WithoutAnEntryThereIsNone)
{
    EXPECT_FALSE(hasStrictGuard());
    std::filesystem::remove_all(wfoal::undoLogFolder);
    EXPECT_FALSE(hasStrictGuard());
}

TEST_F(StrictGuardTest, OneThatRejectsIpv4Is)
{
    EXPECT_TRUE(isStrict(entryHead(here()) + strict));
    EXPECT_TRUE(isStrict(entryHead(here()) + "interface norvatun0\nreject ipv4\n"));
    EXPECT_FALSE(isStrict(entryHead(here()) + "interface norvatun0\nreject ipv6\n"));
}

TEST_F(StrictGuardTest, OneOfAnEarlierBootOrAnotherNamespaceIsNot)
{
    wfoal::Origin other = here();
    other.boot = "1f3e9c5a-0000-4000-8000-000000000000";
    EXPECT_FALSE(isStrict(entryHead(other) + strict));
    std::filesystem::remove(path());
    other = here();
    other.networkNamespace = "c0";
    std::ofstream(path("c0")) << entryHead(other) + strict;
    EXPECT_FALSE(hasStrictGuard());
}

TEST_F(StrictGuardTest, AnEntryThatCannotBeReadCountsAsOne)
{
    EXPECT_TRUE(isStrict(entryHead(here()) + "nonsense\n"));
    EXPECT_TRUE(isStrict("vknetconfig 99\n"));
    EXPECT_TRUE(isStrict(""));
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    EXPECT_TRUE(hasStrictGuard());
}

// What VKNETCONFIG_KEEP says while an object is disposed of.
std::vector<std::string> sDisposed;

PluginPtr<KEST_SystemPlugin> systemObject()
{
    alignas(KEST_SystemPlugin) static char storage[sizeof(KEST_SystemPlugin)];
    const auto dispose = [](Plugin*) {
        const char* const kept = std::getenv("VKNETCONFIG_KEEP");
        sDisposed.emplace_back(kept != nullptr ? kept : "");
        return true;
    };
    return {reinterpret_cast<KEST_SystemPlugin*>(storage), PluginDisposer{dispose}};
}

TEST_F(StrictGuardTest, ItIsKeptWhileAnObjectIsDisposedOf)
{
    sDisposed.clear();
    PluginPtr<KEST_SystemPlugin> system = systemObject();
    disposeBesideStrictGuard(system, KeptTunnel::Part::GuardAndFilter);
    EXPECT_EQ(std::vector<std::string>{""}, sDisposed) << "there is none";
    ASSERT_TRUE(isStrict(entryHead(here()) + strict));
    system = systemObject();
    disposeBesideStrictGuard(system, KeptTunnel::Part::GuardAndFilter);
    system = systemObject();
    disposeBesideStrictGuard(system, KeptTunnel::Part::Guard);
    EXPECT_EQ((std::vector<std::string>{"", "guard-norvatun0,firewall-vpn.vpnoal", "guard-norvatun0"}), sDisposed);
}

TEST_F(StrictGuardTest, WithoutMemoryToKeepItNothingIsDisposedOf)
{
    sDisposed.clear();
    ASSERT_TRUE(isStrict(entryHead(here()) + strict));
    PluginPtr<KEST_SystemPlugin> system = systemObject();
    testsupport::setenvHasMemory = false;
    disposeBesideStrictGuard(system, KeptTunnel::Part::GuardAndFilter);
    testsupport::setenvHasMemory = true;
    EXPECT_EQ(nullptr, system);
    EXPECT_TRUE(sDisposed.empty());
}

}  // namespace

}  // namespace vpnoalctl
