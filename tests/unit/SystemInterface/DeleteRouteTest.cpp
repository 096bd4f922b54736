// SPDX-License-Identifier: Apache-2.0
//
// Deleting routes through the ip tool: the commands, and what happens to the private namespace's table.
#include <cctype>
#include <cstring>
#include <limits>

#include "Faults.h"
#include "Shell.h"
#include "SystemInterfaceTest.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testsupport::onThisMachine;

class DeleteRouteTest : public SystemInterfaceTest {
protected:
    PluginResult remove(AgentRoute route)
    {
        KEST_SystemPluginRoute* routes[] = {&route};
        return mSystem->DeleteRoute(1, routes);
    }

    /// The command that goes out for a route, or "" when none does.
    std::string commandFor(const char* destination, const char* netmask, const char* gateway)
    {
        forget();
        EXPECT_EQ(PLUGIN_SUCCESS, remove({destination, netmask, gateway, 0}));
        const std::string start = "SystemInterface::DeleteRoute: Command Going Out: ";
        for (const fakes::LogLine& line : fakes::logLines(7)) {
            if (line.text.rfind(start, 0) == 0) return line.text.substr(start.size());
        }
        return "";
    }
};

TEST_F(DeleteRouteTest, CommandCarriesThePrefixOfTheMask)
{
    EXPECT_EQ("/sbin/ip route del 10.0.0.0/8 via 10.1.1.1", commandFor("10.0.0.0", "255.0.0.0", "10.1.1.1"));
    EXPECT_EQ("/sbin/ip route del 10.10.0.0/16 via 192.168.1.1", commandFor("10.10.0.0", "255.255.0.0", "192.168.1.1"));
    EXPECT_EQ("/sbin/ip route del 10.0.0.0/24 via 10.1.1.1", commandFor("10.0.0.0", "255.0.255.0", "10.1.1.1"));
}

TEST_F(DeleteRouteTest, PrefixesZeroAnd32GoOutWithoutAPrefix)
{
    EXPECT_EQ("/sbin/ip route del 10.0.0.0 via 10.1.1.1", commandFor("10.0.0.0", "255.255.255.255", "10.1.1.1"));
    EXPECT_EQ("/sbin/ip route del 10.0.0.0 via 10.1.1.1", commandFor("10.0.0.0", "0.0.0.0", "10.1.1.1"));
    EXPECT_EQ("/sbin/ip route del 10.0.0.0 via 10.1.1.1", commandFor("10.0.0.0", "no mask", "10.1.1.1"));
}

TEST_F(DeleteRouteTest, RouteIsDeletedFromTheKernel)
{
    testsupport::shell(
        "ip addr replace 10.1.1.2/24 dev lo; ip route replace 10.9.0.0/16 via 10.1.1.1; ip route add 10.8.0.1 via "
        "10.1.1.1");
    AgentRoute first("10.9.0.0", "255.255.0.0", "10.1.1.1", 0);
    AgentRoute second("10.8.0.1", "255.255.255.255", "10.1.1.1", 0);
    KEST_SystemPluginRoute* routes[] = {&first, &second};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(2, routes));
    EXPECT_EQ("", testsupport::shell("ip route show via 10.1.1.1"));
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(DeleteRouteTest, LogTellsTheWholeStory)
{
    remove({"10.9.0.0", "255.255.255.0", "10.1.1.1", std::numeric_limits<unsigned>::max()});
    const std::string name = "SystemInterface::DeleteRoute";
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(
            fakes::LogLine{7, name + " called!!"},
            fakes::LogLine{7, name + ": Dest(10.9.0.0) Gateway(10.1.1.1) Mask(255.255.255.0) Metric(4294967295)"},
            fakes::LogLine{7,
                           onThisMachine("SystemInterface::ConvertNetmaskToPrefix: netmask 255.255.255.0(0x00ffffff)")},
            fakes::LogLine{7, "SystemInterface::ConvertNetmaskToPrefix: prefixlen 24"},
            fakes::LogLine{7, name + ": Command Going Out: /sbin/ip route del 10.9.0.0/24 via 10.1.1.1"}));
}

TEST_F(DeleteRouteTest, NothingToDeleteIsAnErrorLineAndSuccess)
{
    AgentRoute route("10.0.0.0", "255.0.0.0", "10.1.1.1", 0);
    KEST_SystemPluginRoute* routes[] = {&route};
    for (const bool isArrayGiven : {false, true}) {
        forget();
        EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(isArrayGiven ? 0 : 1, isArrayGiven ? routes : nullptr));
        EXPECT_THAT(fakes::logLines(),
                    ElementsAre(fakes::LogLine{7, "SystemInterface::DeleteRoute called!!"},
                                fakes::LogLine{3, "SystemInterface::DeleteRoute: Called with no routes to delete"}));
    }
}

TEST_F(DeleteRouteTest, NullFirstRouteIsSilent)
{
    AgentRoute route("10.0.0.0", "255.0.0.0", "10.1.1.1", 0);
    KEST_SystemPluginRoute* routes[] = {nullptr, &route};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(2, routes));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{7, "SystemInterface::DeleteRoute called!!"}));
}

TEST_F(DeleteRouteTest, ListEndsAtANullPointer)
{
    testsupport::shell("ip addr replace 10.1.1.2/24 dev lo; ip route replace 10.9.0.0/16 via 10.1.1.1");
    AgentRoute first("10.8.0.0", "255.255.0.0", "10.1.1.1", 0);
    AgentRoute second("10.9.0.0", "255.255.0.0", "10.1.1.1", 0);
    KEST_SystemPluginRoute* routes[] = {&first, nullptr, &second};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(3, routes));
    EXPECT_NE("", testsupport::shell("ip route show via 10.1.1.1"));
}

TEST_F(DeleteRouteTest, HostileTextIsRefusedAndTheNextRouteTaken)
{
    testsupport::shell("ip addr replace 10.1.1.2/24 dev lo");
    const char* const hostile[] = {
        "10.0.0.0; touch /tmp/hurt", "$(touch /tmp/hurt)",        "`touch /tmp/hurt`",
        "10.0.0.0|touch /tmp/hurt",  "10.0.0.0\ntouch /tmp/hurt", "x&touch /tmp/hurt",
    };
    for (const char* text : hostile) {
        for (const bool isGateway : {false, true}) {
            testsupport::shell("ip route replace 10.9.0.0/16 via 10.1.1.1");
            AgentRoute bad(isGateway ? "10.0.0.0" : text, "255.0.0.0", isGateway ? text : "10.1.1.1", 0);
            AgentRoute good("10.9.0.0", "255.255.0.0", "10.1.1.1", 0);
            KEST_SystemPluginRoute* routes[] = {&bad, &good};
            forget();
            EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(2, routes));
            const std::string command =
                "/sbin/ip route del " + std::string(bad.GetDestination()) + "/8 via " + bad.GetGateway();
            EXPECT_THAT(fakes::logLines(3), ElementsAre(fakes::LogLine{
                                                3, "SystemInterface::DeleteRoute:Failed to run command: " + command}));
            EXPECT_THAT(
                fakes::logLines(7),
                Not(Contains(fakes::LogLine{7, "SystemInterface::DeleteRoute: Command Going Out: " + command})));
            EXPECT_EQ("", testsupport::shell("ip route show via 10.1.1.1")) << text;
        }
    }
    EXPECT_NE(0, access("/tmp/hurt", F_OK));
}

TEST_F(DeleteRouteTest, EveryOtherByteIsRefused)
{
    for (int byte = 1; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        if (isascii(byte) && (isalnum(byte) || std::strchr(".:/-_", byte) != nullptr)) continue;
        const std::string text = std::string("a") + c + "b";
        EXPECT_EQ("", commandFor(text.c_str(), "0.0.0.0", "10.1.1.1")) << byte;
        EXPECT_EQ("", commandFor("10.0.0.0", "0.0.0.0", text.c_str())) << byte;
    }
}

TEST_F(DeleteRouteTest, EveryHarmlessCharacterGoesOut)
{
    const char harmless[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.:/-_";
    EXPECT_EQ(std::string("/sbin/ip route del ") + harmless + " via fe80::1",
              commandFor(harmless, "0.0.0.0", "fe80::1"));
}

TEST_F(DeleteRouteTest, NullTextsAreRefused)
{
    EXPECT_EQ("", commandFor(nullptr, "255.0.0.0", "10.1.1.1"));
    EXPECT_EQ("", commandFor("10.0.0.0", "255.0.0.0", nullptr));
    EXPECT_EQ("/sbin/ip route del 10.0.0.0 via 10.1.1.1", commandFor("10.0.0.0", nullptr, "10.1.1.1"));
}

TEST_F(DeleteRouteTest, CommandThatCannotBeRunIsLoggedAndTheNextRouteTaken)
{
    AgentRoute first("10.8.0.0", "255.255.0.0", "10.1.1.1", 0);
    AgentRoute second("10.9.0.0", "255.255.0.0", "10.1.1.1", 0);
    KEST_SystemPluginRoute* routes[] = {&first, &second};
    const testsupport::Fault fault(testsupport::Call::Process, 1, EMFILE);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->DeleteRoute(2, routes));
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3,
                                           "SystemInterface::DeleteRoute:Failed to run command: /sbin/ip route del "
                                           "10.8.0.0/16 via 10.1.1.1"}));
    EXPECT_THAT(fakes::logLines(7), Contains(fakes::LogLine{7,
                                                            "SystemInterface::DeleteRoute: Command Going Out: /sbin/ip "
                                                            "route del 10.9.0.0/16 via 10.1.1.1"}));
}

TEST_F(DeleteRouteTest, OutputOfTheToolIsLoggedLineByLine)
{
    // The real tool says nothing on its standard output.
    testsupport::shell(
        "mkdir -p /tmp/bin && printf '#!/bin/sh\\necho one; echo two\\n' > /tmp/bin/ip && chmod +x /tmp/bin/ip");
    testsupport::shell("mount --bind /tmp/bin/ip /sbin/ip");
    remove({"10.0.0.0", "255.0.0.0", "10.1.1.1", 0});
    testsupport::shell("umount /sbin/ip");
    EXPECT_THAT(fakes::logLines(), Contains(fakes::LogLine{7, "SystemInterface::DeleteRoute: Output: one\n"}));
    EXPECT_EQ((fakes::LogLine{7, "SystemInterface::DeleteRoute: Output: two\n"}), fakes::logLines().back());
}

TEST_F(DeleteRouteTest, OutputLineOfMoreThan255BytesIsLoggedInParts)
{
    testsupport::shell(
        "mkdir -p /tmp/bin && printf '#!/bin/sh\\nprintf %%0600d 7; echo; echo end\\n' > /tmp/bin/ip && chmod +x "
        "/tmp/bin/ip");
    testsupport::shell("mount --bind /tmp/bin/ip /sbin/ip");
    remove({"10.0.0.0", "255.0.0.0", "10.1.1.1", 0});
    testsupport::shell("umount /sbin/ip");
    std::vector<std::string> parts;
    const std::string start = "SystemInterface::DeleteRoute: Output: ";
    for (const fakes::LogLine& line : fakes::logLines(7)) {
        if (line.text.rfind(start, 0) == 0) parts.push_back(line.text.substr(start.size()));
    }
    EXPECT_THAT(parts,
                ElementsAre(std::string(255, '0'), std::string(255, '0'), std::string(89, '0') + "7\n", "end\n"));
}

TEST(ConvertNetmaskToPrefixTest, ContiguousMasksHaveTheirLength)
{
    for (int prefix = 1; prefix <= 32; ++prefix) {
        const unsigned bits = ~0u << (32 - prefix);
        const std::string mask = std::to_string(bits >> 24) + "." + std::to_string(bits >> 16 & 255) + "." +
                                 std::to_string(bits >> 8 & 255) + "." + std::to_string(bits & 255);
        EXPECT_EQ(prefix, ConvertNetmaskToPrefix(mask.c_str())) << mask;
    }
}

TEST(ConvertNetmaskToPrefixTest, MaskWithGapsHasThePlaceOfItsLowestBit)
{
    EXPECT_EQ(24, ConvertNetmaskToPrefix("255.0.255.0"));
    EXPECT_EQ(32, ConvertNetmaskToPrefix("0.0.0.1"));
    EXPECT_EQ(1, ConvertNetmaskToPrefix("128.0.0.0"));
}

TEST(ConvertNetmaskToPrefixTest, NoMaskIsZeroWithoutALogLine)
{
    for (const char* text : {"", " 255.0.0.0", "255.0.0", "24", "256.0.0.0", "::"}) {
        fakes::clearLog();
        EXPECT_EQ(0, ConvertNetmaskToPrefix(text)) << text;
        EXPECT_THAT(fakes::logLines(), IsEmpty());
    }
    EXPECT_EQ(0, ConvertNetmaskToPrefix(nullptr));
    EXPECT_EQ(0, ConvertNetmaskToPrefix("0.0.0.0"));
}

}  // namespace
