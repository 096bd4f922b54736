// SPDX-License-Identifier: Apache-2.0
//
// DNS as a part of an interface configuration, with a resolvconf that keeps what it is given in files.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Driver.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"

using namespace testsupport;
using testing::HasSubstr;

namespace {

constexpr char folder[] = "/tmp/tools";

class InterfaceDnsTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        setenv("PATH", (std::string(folder) + ":" + std::getenv("PATH")).c_str(), 1);
        std::filesystem::create_directories("/tmp/dns");
        std::filesystem::create_directories(folder);
        install();
        makeInterface();
        mBefore = state();
    }

    // Keeps one file an interface in /tmp/dns; refuses what has "refused." in it, and keeps what has "kept." in it but
    // fails.
    static void install()
    {
        const std::string path = std::string(folder) + "/resolvconf";
        std::ofstream(path) << "#!/bin/sh\n"
                               "case \"$1\" in\n"
                               "-a) cat >/tmp/dns/new; grep -q refused /tmp/dns/new && { rm /tmp/dns/new; exit 1; };\n"
                               "    mv /tmp/dns/new \"/tmp/dns/$2\"; ! grep -q kept \"/tmp/dns/$2\" ;;\n"
                               "-d) rm -f \"/tmp/dns/$2\" ;;\n"
                               "--version) exit 0 ;;\n"
                               "esac\n";
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }

    static std::string dns() { return outputOf("cat /tmp/dns/*"); }
    static std::string state() { return networkSnapshot() + outputOf("ls /tmp/dns; cat /tmp/dns/*"); }

    static int add(const std::string& domain, const std::string& gateway = "10.8.0.1", int metric = 5)
    {
        const std::string json = R"({"domainsOnIfDns":[")" + domain +
                                 R"("],"ifName":"vpn0","ipv4":{"dns":["0x0100080a"],)" +
                                 R"("additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":")" +
                                 gateway + R"(","metric":)" + std::to_string(metric) + "}]}}";
        return CmAddInterfaceCfg2(json.c_str());
    }

    void expectAllGone() const
    {
        EXPECT_EQ(state(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

}  // namespace

TEST_F(InterfaceDnsTest, ServersAndDomainsAreSetAndRemovedWithTheRoutes)
{
    ASSERT_EQ(add("one.example"), 0);
    EXPECT_THAT(dns(), HasSubstr("10.8.0.1"));
    EXPECT_THAT(dns(), HasSubstr("one.example"));
    EXPECT_EQ(routesOf("vpn0").size(), 1U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceDnsTest, AResolverThatRefusesLeavesNothing)
{
    testing::internal::CaptureStderr();
    EXPECT_NE(add("refused.example"), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("CmAddInterfaceCfg2: ipv4.dns: "));
    expectAllGone();
}

TEST_F(InterfaceDnsTest, AResolverThatFailsAfterItHasKeptTheSettingsLeavesNothing)
{
    EXPECT_NE(add("kept.example"), 0);
    expectAllGone();
}

TEST_F(InterfaceDnsTest, WithoutAResolverTheRequestIsRefusedAndNothingIsChanged)
{
    std::filesystem::remove_all(folder);
    testing::internal::CaptureStderr();
    EXPECT_NE(add("one.example"), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("CmAddInterfaceCfg2: ipv4.dns: no resolver"));
    expectAllGone();
}

TEST_F(InterfaceDnsTest, ARequestWithoutDnsNeedsNoResolver)
{
    std::filesystem::remove_all(folder);
    ASSERT_EQ(CmAddInterfaceCfg2(requestWithRoutes(2, R"("dns":[],)").c_str()), 0);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceDnsTest, AReplacementReplacesTheSettings)
{
    ASSERT_EQ(add("one.example"), 0);
    ASSERT_EQ(add("two.example"), 0);
    EXPECT_THAT(dns(), HasSubstr("two.example"));
    EXPECT_EQ(dns().find("one.example"), std::string::npos);
    ASSERT_EQ(CmAddInterfaceCfg2(requestWithRoutes(2).c_str()), 0);
    EXPECT_EQ(outputOf("ls /tmp/dns"), "");
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceDnsTest, AFailedReplacementLeavesTheSettingsInstalled)
{
    ASSERT_EQ(add("one.example"), 0);
    const std::string inForce = state();
    EXPECT_NE(add("two.example", "10.99.0.1"), 0);
    EXPECT_EQ(state(), inForce);
    EXPECT_NE(add("refused.example", "10.8.0.1", 9), 0);
    EXPECT_EQ(state(), inForce);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceDnsTest, StaleSettingsAreRemovedAlsoWhenTheInterfaceIsGone)
{
    std::ofstream("/tmp/request.json")
        << R"({"ifName":"vpn0","domainsOnIfDns":["one.example"],"ipv4":{"dns":["0x0100080a"]}})";
    run(driver("add /tmp/request.json"));
    EXPECT_THAT(dns(), HasSubstr("one.example"));
    run(driver("delete nothing0"));
    expectAllGone();
    run(driver("add /tmp/request.json"));
    run("ip link del vpn0");
    run(driver("delete nothing0"));
    EXPECT_EQ(outputOf("ls /tmp/dns"), "");
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}
