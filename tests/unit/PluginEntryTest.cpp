// SPDX-License-Identifier: Apache-2.0
//
// The factory and the table of interfaces.
#include <gmock/gmock.h>

#include <cstdio>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "EventThread.h"
#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "Log.h"
#include "ObjectRegistry.h"
#include "RecordingCallback.h"
#include "SystemInterface.h"
#include "kest/CertPlugin.h"
#include "kest/Plugin.h"
#include "kest/SocketPlugin.h"
#include "kest/StoragePlugin.h"

extern "C" const AvailableInterfaceEntry g_AvailableInterfaces[];

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

    static std::string pointerText(const void* pointer)
    {
        char text[32];
        std::snprintf(text, sizeof text, "%p", pointer);
        return text;
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
        {7, "Created new plugin " + pointerText(nullptr)},
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

TEST_F(PluginEntryTest, EventSideIsStartedBeforeTheObjectIsRegistered)
{
    for (const char* identifier : {identifiers[0], identifiers[3]}) {
        stopQuorIpcHandling();
        int operations = 0;
        fakes::bus().onOperation = [&operations](const std::string& operation) {
            ++operations;
            EXPECT_EQ(nullptr, getSystemIfObject()) << operation;
            EXPECT_EQ(nullptr, getSocketIfObject()) << operation;
        };
        Plugin* plugin = CreatePlugin(identifier);
        EXPECT_EQ(3, operations);
        fakes::bus() = {};
        DisposePlugin(plugin);
    }
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
    EXPECT_EQ((std::vector<fakes::LogLine>{{7, "DisposePlugin: " + pointerText(nullptr) + " called"}}),
              fakes::logLines());
}

TEST_F(PluginEntryTest, TableIsLoggedAndTheExportedOne)
{
    EXPECT_EQ(g_AvailableInterfaces, GetAvailableInterfaces().entries);
    EXPECT_EQ((std::vector<fakes::LogLine>{{7, "GetAvailableInterfaces: Called!"}}), fakes::logLines());
}

TEST_F(PluginEntryTest, CreationIsAnnouncedBeforeTheEventSideStartsAndTheObjectIsBuilt)
{
    // As the log spells them.
    const char* const announced[] = {"SystemInterface", "CertificateInterface", "StorageInterface", "SocektInterface"};
    for (std::size_t i = 0; i < std::size(identifiers); ++i) {
        stopQuorIpcHandling();
        fakes::clearLog();
        Plugin* plugin = CreatePlugin(identifiers[i]);
        const auto lines = fakes::logLinesOfThisThread();
        std::vector<fakes::LogLine> expected = {
            {7, std::string("CreatePlugin: Called! Wanting: ") + identifiers[i]},
            {7, std::string("CreatePlugin: ") + announced[i] + " Instantiated!"},
        };
        if (i == 0 || i == 3) expected.push_back({7, "startQuorIpcHandling: Called!"});
        expected.push_back({7, "Created new plugin " + pointerText(plugin)});
        EXPECT_EQ(expected, lines);
        fakes::clearLog();
        EXPECT_TRUE(DisposePlugin(plugin));
        EXPECT_EQ((fakes::LogLine{7, "DisposePlugin: " + pointerText(plugin) + " called"}),
                  fakes::logLinesOfThisThread().at(0));
    }
}

TEST_F(PluginEntryTest, SlotIsClearedBeforeTheObjectGoes)
{
    struct : RecordingCallback {
        void OnConfigurationChange() override { note(getSystemIfObject() == nullptr ? "cleared" : "still there"); }
    } callback;
    Plugin* plugin = CreatePlugin(identifiers[0]);
    static_cast<KEST_SystemPlugin*>(plugin)->SetSystemPluginCB(&callback);
    DisposePlugin(plugin);  // restores the configuration while it is destroyed
    EXPECT_EQ(std::vector<std::string>{"cleared"}, callback.events);
}

TEST_F(PluginEntryTest, SupportsInterfaceIsLoggedAsEachClassDoes)
{
    const std::vector<fakes::LogLine> expected[] = {
        {{7, "SystemInterface::SupportsInterface: called!!! Interface Name being requested: x"}},
        {{7, "CertificateInterface::SupportsInterface: called!!! Interface Name being requested: x"}},
        {},
        {{7, "SupportsInterface: Called!!"}},
    };
    for (std::size_t i = 0; i < std::size(identifiers); ++i) {
        Plugin* plugin = CreatePlugin(identifiers[i]);
        fakes::clearLog();
        EXPECT_FALSE(plugin->SupportsInterface("x", 0));
        EXPECT_EQ(expected[i], fakes::logLinesOfThisThread());
        DisposePlugin(plugin);
    }
}

TEST_F(PluginEntryTest, LastErrorStringIsMinusThreeForAnyBufferAndLeavesItAlone)
{
    const auto check = [](auto* plugin) {
        fakes::clearLog();
        char buffer[4] = {'a', 'b', 'c', 'd'};
        EXPECT_EQ(-3, plugin->GetLastErrorString(buffer, sizeof buffer));
        EXPECT_EQ(-3, plugin->GetLastErrorString(buffer, 0));
        EXPECT_EQ(-3, plugin->GetLastErrorString(buffer, std::numeric_limits<unsigned>::max()));
        EXPECT_EQ(-3, plugin->GetLastErrorString(nullptr, 0));
        EXPECT_EQ("abcd", std::string(buffer, sizeof buffer));
        EXPECT_TRUE(fakes::logLinesOfThisThread().empty());
        DisposePlugin(plugin);
    };
    check(static_cast<KEST_SystemPlugin*>(CreatePlugin(identifiers[0])));
    check(static_cast<KEST_CertPlugin*>(CreatePlugin(identifiers[1])));
    check(static_cast<KEST_StoragePlugin*>(CreatePlugin(identifiers[2])));
    check(static_cast<KEST_SocketPlugin*>(CreatePlugin(identifiers[3])));
}

TEST_F(PluginEntryTest, LogContextIsAskedForUnderItsName)
{
    EXPECT_EQ("vpnagent.wfoal", fakes::logContextName());
    EXPECT_EQ(&fakes::logContext(), vpnWfOalLogCxt);
}

}  // namespace
