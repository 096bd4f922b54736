// SPDX-License-Identifier: Apache-2.0
#include "resolved/LinkDns.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "ErrorOf.h"
#include "json/JsonError.h"

using namespace wfoal;
using testing::StartsWith;

namespace {

DnsServer server(const char* address, std::uint16_t port = 0, const char* name = "")
{
    const int family = std::string(address).find(':') == std::string::npos ? AF_INET : AF_INET6;
    DnsServer made{family, std::string(family == AF_INET ? 4 : 16, '\0'), port, name};
    EXPECT_EQ(inet_pton(family, address, made.address.data()), 1);
    return made;
}

DnsSettings settings(const std::vector<const char*>& servers, const std::vector<std::string>& domains, bool allTraffic)
{
    DnsSettings made{{}, domains, allTraffic};
    for (const char* address : servers)
        made.servers.push_back(wfoal::Ipv4Address{inet_addr(address)});
    return made;
}

const LinkDns tunnel{{server("10.8.0.1")}, {{"corp.test", false}}, false};
const LinkDns nothing{{}, {}, true};

std::string errorOf(const std::string& text)
{
    return testsupport::errorOf<JsonError>([&] { LinkChange::decode(text); });
}

}  // namespace

TEST(LinkDnsTest, DomainsWithoutAllTrafficAreAskedHereAndNothingElseIs)
{
    EXPECT_EQ(resolvedSettingsFor(settings({"10.8.0.1"}, {"corp.test"}, false)), tunnel);
}

TEST(LinkDnsTest, WithAllTrafficEverythingIsAskedHere)
{
    EXPECT_EQ(resolvedSettingsFor(settings({"10.8.0.1"}, {"corp.test"}, true)),
              (LinkDns{{server("10.8.0.1")}, {{"corp.test", false}, {".", true}}, true}));
}

TEST(LinkDnsTest, ServersWithoutDomainsTakeWhatNoOtherLinkClaims)
{
    EXPECT_EQ(resolvedSettingsFor(settings({"10.8.0.1"}, {}, false)), (LinkDns{{server("10.8.0.1")}, {}, true}));
    EXPECT_EQ(resolvedSettingsFor(settings({"10.8.0.1"}, {}, true)),
              (LinkDns{{server("10.8.0.1")}, {{".", true}}, true}));
}

TEST(LinkDnsTest, DomainsWithoutServersClaimNotEverything)
{
    EXPECT_EQ(resolvedSettingsFor(settings({}, {"corp.test"}, true)), (LinkDns{{}, {{"corp.test", false}}, true}));
}

TEST(LinkDnsTest, NamesDifferNeitherByCaseNorByTheLastDot)
{
    EXPECT_EQ(resolvedSettingsFor(settings({"10.8.0.1"}, {"Corp.TEST.", "corp.test"}, false)), tunnel);
}

TEST(LinkDnsTest, ATildeMeansNotSearched)
{
    EXPECT_EQ(resolvedSettingsFor(settings({}, {"~a", "~."}, false)).domains,
              (std::vector<DnsDomain>{{"a", true}, {".", true}}));
    EXPECT_EQ(resolvedSettingsFor(settings({}, {"~a", "a"}, false)).domains, (std::vector<DnsDomain>{{"a", false}}));
    EXPECT_EQ(resolvedSettingsFor(settings({}, {"a", "~a"}, false)).domains, (std::vector<DnsDomain>{{"a", false}}));
}

TEST(LinkDnsTest, DoublesAreDroppedAndTheOrderStays)
{
    EXPECT_EQ(resolvedSettingsFor(settings({"10.0.0.2", "10.0.0.1", "10.0.0.2"}, {}, false)).servers,
              (std::vector<DnsServer>{server("10.0.0.2"), server("10.0.0.1")}));
}

TEST(LinkDnsTest, AChangeComesBackFromItsLine)
{
    const LinkDns others{
        {server("192.168.1.1", 5353), server("fe80::1", 853, "dns.example")}, {{"a", true}, {"b", false}}, true};
    const LinkChange change{{17, "norvatun0"}, tunnel, others};
    EXPECT_EQ(change.encode(),
              "17 norvatun0 10.8.0.1/0/ corp.test no 192.168.1.1/5353/,fe80::1/853/dns.example ~a,b yes");
    const LinkChange again = LinkChange::decode(change.encode());
    EXPECT_EQ(again.link, change.link);
    EXPECT_EQ(again.set, change.set);
    EXPECT_EQ(again.before, change.before);
}

TEST(LinkDnsTest, EmptyListsComeBackFromTheirLine)
{
    const LinkChange change{{1, "a"}, nothing, nothing};
    EXPECT_EQ(change.encode(), "1 a - - yes - - yes");
    EXPECT_EQ(LinkChange::decode(change.encode()).before, nothing);
}

TEST(LinkDnsTest, ALineThatIsNoChangeIsRefused)
{
    for (const char* text : {"", "x", "1", "1 a", "1 a - - yes", "1 a - - yes - - maybe", "1 a - - yes - - yes more",
                             "a a - - yes - - yes", "1 a 10.0.0.1 - yes - - yes", "1 a 10.0.0.1/x/ - yes - - yes",
                             "1 a 10.0.0.1/70000/ - yes - - yes", "1 a 10.0.0/0/ - yes - - yes", "1  - - yes - - yes",
                             "1 a 10.0.0.1/0/a/b - yes - - yes", "1 a , - yes - - yes", "1 a - a,,b yes - - yes",
                             "1 a - ~ yes - - yes", "1 a - a.. yes - - yes", "1 a - ~~a yes - - yes"}) {
        EXPECT_THAT(errorOf(text), StartsWith("undo log: ")) << text;
    }
}

TEST(LinkDnsTest, WhatIsStillOursIsRestored)
{
    const LinkChange change{{1, "a"}, tunnel, nothing};
    EXPECT_EQ(stateAfterUndo(change, tunnel), nothing);
}

TEST(LinkDnsTest, WhatWasSetOnlyInPartIsRestored)
{
    const LinkChange change{{1, "a"}, tunnel, nothing};
    EXPECT_EQ(stateAfterUndo(change, {tunnel.servers, {}, true}), nothing);
    EXPECT_EQ(stateAfterUndo(change, {tunnel.servers, tunnel.domains, true}), nothing);
    EXPECT_EQ(stateAfterUndo(change, nothing), nothing);
}

TEST(LinkDnsTest, WhatSomebodyElseHasSetSinceIsLeft)
{
    const LinkChange change{{1, "a"}, tunnel, nothing};
    const LinkDns theirs{{server("9.9.9.9")}, {{"their.test", false}}, true};
    EXPECT_EQ(stateAfterUndo(change, theirs), theirs);
    EXPECT_EQ(stateAfterUndo(change, {theirs.servers, tunnel.domains, false}), (LinkDns{theirs.servers, {}, true}));
}
