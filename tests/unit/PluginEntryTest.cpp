// SPDX-License-Identifier: Apache-2.0
//
// The factory and the table of interfaces.
#include <gmock/gmock.h>

#include <limits>
#include <string>

#include "EventThread.h"
#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "Log.h"
#include "ObjectRegistry.h"
#include "SystemInterface.h"
#include "kest/Plugin.h"

namespace {

const char* const identifiers[] = {
    "com.norva.wayfold.kest.system",
    "com.norva.wayfold.kest.certificate",
    "com.norva.wayfold.kest.storage",
    "com.norva.wayfold.kest.socket",
};

class PluginEntryTest : public testing::Test {
protected:
    void SetUp() override
    {
        fakes::clearLog();
        fakes::clearCalls();
    }
};

TEST_F(PluginEntryTest, TableHasFourRowsInItsOwnOrderWithValueZero)
{
    const AvailableInterfaceList list = GetAvailableInterfaces();
    ASSERT_EQ(4u, list.count);
    for (unsigned i = 0; i < list.count; ++i) {
        EXPECT_STREQ(identifiers[i], list.entries[i].identifier);
        EXPECT_EQ(0u, list.entries[i].value);
    }
}

TEST_F(PluginEntryTest, IdentifierFollowedByABlankCreatesNothing)
{
    EXPECT_EQ(nullptr, CreatePlugin("com.norva.wayfold.kest.system "));
    const std::vector<fakes::LogLine> expected = {
        {7, "CreatePlugin: Called! Wanting: com.norva.wayfold.kest.system "},
        {7, "Created new plugin (nil)"},
    };
    EXPECT_EQ(expected, fakes::logLines());
}

TEST_F(PluginEntryTest, NullIdentifierCreatesNothing)
{
    EXPECT_EQ(nullptr, CreatePlugin(nullptr));
}

TEST_F(PluginEntryTest, EachClassSupportsItsOwnIdentifierInEveryVersion)
{
    for (const char* own : identifiers) {
        Plugin* plugin = CreatePlugin(own);
        ASSERT_NE(nullptr, plugin);
        for (const char* asked : identifiers) {
            for (const unsigned version : {0u, 1u, std::numeric_limits<unsigned>::max()}) {
                EXPECT_EQ(std::string(asked) == own, plugin->SupportsInterface(asked, version));
            }
        }
        EXPECT_FALSE(plugin->SupportsInterface(nullptr, 0));
        EXPECT_TRUE(DisposePlugin(plugin));
    }
}

TEST_F(PluginEntryTest, DisposingTheSystemObjectClearsItsSlotOnly)
{
    Plugin* system = CreatePlugin(identifiers[0]);
    Plugin* socket = CreatePlugin(identifiers[3]);
    Plugin* certificate = CreatePlugin(identifiers[1]);
    DisposePlugin(certificate);
    EXPECT_NE(nullptr, getSystemIfObject());
    EXPECT_NE(nullptr, getSocketIfObject());
    DisposePlugin(system);
    EXPECT_EQ(nullptr, getSystemIfObject());
    EXPECT_NE(nullptr, getSocketIfObject());
    DisposePlugin(socket);
    EXPECT_EQ(nullptr, getSocketIfObject());
}

TEST_F(PluginEntryTest, SecondObjectOfAKindTakesTheSlotAndKeepsIt)
{
    Plugin* older = CreatePlugin(identifiers[0]);
    Plugin* newer = CreatePlugin(identifiers[0]);
    EXPECT_EQ(newer, static_cast<Plugin*>(getSystemIfObject()));
    DisposePlugin(older);
    EXPECT_EQ(newer, static_cast<Plugin*>(getSystemIfObject()));
    DisposePlugin(newer);
    EXPECT_EQ(nullptr, getSystemIfObject());
}

TEST_F(PluginEntryTest, OnlyTheFirstSystemOrSocketObjectStartsTheEventSide)
{
    stopQuorIpcHandling();
    fakes::clearCalls();
    Plugin* plugins[] = {CreatePlugin(identifiers[1]), CreatePlugin(identifiers[2])};
    EXPECT_THAT(fakes::calls(), testing::IsEmpty());
    Plugin* socket = CreatePlugin(identifiers[3]);
    EXPECT_THAT(fakes::calls(), testing::Contains("QSRegister (null)"));
    fakes::clearCalls();
    Plugin* system = CreatePlugin(identifiers[0]);
    EXPECT_THAT(fakes::calls(), testing::IsEmpty());
    for (Plugin* plugin : {plugins[0], plugins[1], socket, system})
        DisposePlugin(plugin);
    EXPECT_THAT(fakes::calls(), testing::Not(testing::Contains("PowerdClientDeinit")));
}

TEST_F(PluginEntryTest, ObjectIsCreatedThoughTheEventSideCannotBeReached)
{
    stopQuorIpcHandling();
    fakes::bus().failing = "QSRegister";
    Plugin* system = CreatePlugin(identifiers[0]);
    EXPECT_NE(nullptr, system);
    DisposePlugin(system);
    fakes::bus() = {};
}

TEST_F(PluginEntryTest, DisposingNullIsHarmless)
{
    EXPECT_TRUE(DisposePlugin(nullptr));
}

TEST_F(PluginEntryTest, LogContextIsAskedForUnderItsName)
{
    EXPECT_EQ("vpnagent.wfoal", fakes::logContextName());
    EXPECT_EQ(&fakes::logContext(), vpnWfOalLogCxt);
}

}  // namespace
