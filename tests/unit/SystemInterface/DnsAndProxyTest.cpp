// SPDX-License-Identifier: Apache-2.0
//
// DNS servers, domains and proxy settings, as they arrive in the interface request and in the log.
#include <string>

#include "SystemInterfaceTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::onThisMachine;

class DnsAndProxyTest : public SystemInterfaceTest {
protected:
    PluginResult setServers(std::vector<const char*> servers)
    {
        servers.push_back(nullptr);
        return mSystem->SetDNSServers(servers.data());
    }

    PluginResult setSplitDomains(std::vector<const char*> domains)
    {
        domains.push_back(nullptr);
        return mSystem->SetSplitDNSDomains(domains.data());
    }
};

TEST_F(DnsAndProxyTest, EmptyServerListLeavesAnEmptyArray)
{
    EXPECT_EQ(PLUGIN_SUCCESS, setServers({}));
    EXPECT_EQ(request(R"( "dns": [ ])"), appliedRequest());
}

TEST_F(DnsAndProxyTest, UnparsableServerIsSkippedWithOneErrorLine)
{
    EXPECT_EQ(PLUGIN_SUCCESS, setServers({"10.0.0.1", "resolver", "10.0.0.2"}));
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(
            fakes::LogLine{7, "SystemInterface::SetDNSServers: SetDNSServers invoked!"},
            fakes::LogLine{7, onThisMachine("SystemInterface::addAddressToJson: DNS Address is 10.0.0.1(0x0100000a)")},
            fakes::LogLine{3, "SystemInterface::SetDNSServers: invalid DNS server resolver"},
            fakes::LogLine{7,
                           onThisMachine("SystemInterface::addAddressToJson: DNS Address is 10.0.0.2(0x0200000a)")}));
    EXPECT_EQ(request(R"( "dns": [ "0x0100000a", "0x0200000a" ])"), appliedRequest());
}

TEST_F(DnsAndProxyTest, ServersThatAreNoDottedIpv4AreRejectedOneByOne)
{
    EXPECT_EQ(PLUGIN_SUCCESS, setServers({"fe80::1", "::ffff:10.0.0.1", "", "10.0.0", "10.0.0.256", " 10.0.0.1"}));
    EXPECT_EQ(6u, fakes::logLines(3).size());
    EXPECT_EQ((fakes::LogLine{3, "SystemInterface::SetDNSServers: invalid DNS server fe80::1"}), fakes::logLines(3)[0]);
    EXPECT_EQ(request(R"( "dns": [ ])"), appliedRequest());
}

TEST_F(DnsAndProxyTest, SecondServerListReplacesTheFirst)
{
    setServers({"10.0.0.1", "10.0.0.2"});
    setServers({"10.0.0.3"});
    EXPECT_EQ(request(R"( "dns": [ "0x0300000a" ])"), appliedRequest());
}

TEST_F(DnsAndProxyTest, NullServerListChangesNothing)
{
    setServers({"10.0.0.1"});
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetDNSServers(nullptr));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetDNSServers: SetDNSServers invoked!"}));
    EXPECT_EQ(request(R"( "dns": [ "0x0100000a" ])"), appliedRequest());
}

TEST_F(DnsAndProxyTest, DomainAThenSplitDomainsBAndCGiveOneList)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetDNSDomain("a"));
    EXPECT_EQ(PLUGIN_SUCCESS, setSplitDomains({"b", "c"}));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetDNSDomain: SetDNSDomain Domain(a)"},
                            fakes::LogLine{7, "SystemInterface::SetSplitDNSDomains: Split DNS Domains invoked"},
                            fakes::LogLine{7, "SystemInterface::SetSplitDNSDomains: Split DNS Domain[0]: b"},
                            fakes::LogLine{7, "SystemInterface::SetSplitDNSDomains: Split DNS Domain[1]: c"}));
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ "a", "b", "c" ],)"), appliedRequest());
}

TEST_F(DnsAndProxyTest, SplitDomainsBeforeTheDomainKeepTheOrderOfTheCalls)
{
    setSplitDomains({"b"});
    mSystem->SetDNSDomain("a");
    setSplitDomains({"c"});
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ "b", "a", "c" ],)"), appliedRequest());
}

TEST_F(DnsAndProxyTest, SameDomainTwiceIsListedTwice)
{
    mSystem->SetDNSDomain("a");
    mSystem->SetDNSDomain("a");
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ "a", "a" ],)"), appliedRequest());
}

TEST_F(DnsAndProxyTest, NullDomainChangesNothing)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetDNSDomain(nullptr));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetDNSDomain: SetDNSDomain Domain(<NULL>)"}));
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(DnsAndProxyTest, EmptySplitDomainListLeavesAnEmptyArray)
{
    EXPECT_EQ(PLUGIN_SUCCESS, setSplitDomains({}));
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ ],)"), appliedRequest());
}

TEST_F(DnsAndProxyTest, NullSplitDomainListFailsUnlikeTheOthers)
{
    EXPECT_EQ(PLUGIN_FAILURE, mSystem->SetSplitDNSDomains(nullptr));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetSplitDNSDomains: Split DNS Domains invoked"},
                            fakes::LogLine{3, "SystemInterface::SetSplitDNSDomains: unexpected NULL"}));
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(DnsAndProxyTest, DomainsAreCopiedUnchanged)
{
    mSystem->SetDNSDomain("");
    mSystem->SetDNSDomain("~a/b \"c\"");
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ "", "~a\/b \"c\"" ],)"), appliedRequest());
}

TEST_F(DnsAndProxyTest, FailedApplyKeepsDnsAndASuccessfulOneEmptiesIt)
{
    setServers({"10.0.0.1"});
    mSystem->SetDNSDomain("a");
    const std::string wanted = request(R"( "dns": [ "0x0100000a" ])", R"( "domainsOnIfDns": [ "a" ],)");
    fakes::netConfigResults().add = 1;
    EXPECT_EQ(wanted, appliedRequest());
    fakes::netConfigResults().add = 0;
    EXPECT_EQ(wanted, appliedRequest());
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(DnsAndProxyTest, ProxySettingsAreLoggedOnlyWhateverTheyAre)
{
    const char* exceptions[] = {"localhost", nullptr};
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetProxy(PROXY_TYPE_MANUAL, "proxy:3128"));
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetProxy(static_cast<KEST_ProxyType>(-1), nullptr));
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetProxyExceptionList(exceptions));
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetProxyExceptionList(nullptr));
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ClearProxySettings());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetProxy: SetProxy called"},
                            fakes::LogLine{7, "SystemInterface::SetProxy: SetProxy called"},
                            fakes::LogLine{7, "SystemInterface::SetProxyExceptionList: SetProxyExceptionList called"},
                            fakes::LogLine{7, "SystemInterface::SetProxyExceptionList: SetProxyExceptionList called"},
                            fakes::LogLine{7, "SystemInterface::ClearProxySettings: ClearProxySettings called"}));
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(DnsAndProxyTest, DomainOfEveryByteIsApplied)
{
    std::string domain;
    for (int byte = 1; byte < 256; ++byte)
        domain += static_cast<char>(byte);
    mSystem->SetDNSDomain(domain.c_str());
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
}

}  // namespace
