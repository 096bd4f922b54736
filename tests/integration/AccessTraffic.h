// SPDX-License-Identifier: Apache-2.0
//
// Traffic while tunnels come and go, and what of it leaves beside them. Datagrams to port 9999 are sent all the time:
// IPv4 as the routes lead it, and IPv6 over each of the access networks eth0 and wwan0, whatever the routes say. What
// arrives at the other ends is counted for each network and family.
#ifndef WFOAL_TEST_ACCESSTRAFFIC_H
#define WFOAL_TEST_ACCESSTRAFFIC_H

#include <gmock/gmock.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "ComesTrue.h"
#include "Shell.h"
#include "SteadySender.h"

namespace testsupport {

class AccessTraffic {
public:
    /// The other ends of eth0 and wwan0 have these names in the namespace. `inTunnel` is an IPv4 address that the
    /// tunnel covers.
    AccessTraffic(const std::string& otherEnds, const char* inTunnel, const std::string& wifi = "eth0",
                  const std::string& cellular = "wwan0")
        : mInOtherEnds("nsenter --net=/run/netns/" + otherEnds)
    {
        shell(mInOtherEnds +
              " sh -c 'ip -6 address add 2001:db8:80::80/128 dev lo; ip -6 address add 2001:db8:1::1/64" + " dev " +
              wifi + " nodad; ip -6 address add 2001:db8:2::1/64 dev " + cellular + " nodad'");
        shell(mInOtherEnds + " nft -D wifi=" + wifi + " -D cellular=" + cellular + R"( -f - <<'END'
table inet access {
    counter wifi4 { }
    counter wifi6 { }
    counter cellular4 { }
    counter cellular6 { }
    chain arriving {
        type filter hook prerouting priority -299
        iifname $wifi udp dport 9999 meta nfproto ipv4 counter name wifi4
        iifname $wifi udp dport 9999 meta nfproto ipv6 counter name wifi6
        iifname $cellular udp dport 9999 meta nfproto ipv4 counter name cellular4
        iifname $cellular udp dport 9999 meta nfproto ipv6 counter name cellular6
    }
}
END
true)");
        addIpv6("eth0");
        addIpv6("wwan0");
        mSenders.push_back(std::make_unique<SteadySender>(inTunnel, ""));
        mSenders.push_back(std::make_unique<SteadySender>(far, "eth0"));
        mSenders.push_back(std::make_unique<SteadySender>(far, "wwan0"));
    }
    AccessTraffic(const AccessTraffic&) = delete;
    AccessTraffic& operator=(const AccessTraffic&) = delete;
    ~AccessTraffic()
    {
        mSenders.clear();
        removeIpv6("eth0");
        removeIpv6("wwan0");
    }

    /// As a router's advertisement does it.
    static void addIpv6(const std::string& device)
    {
        const std::string network = device == "eth0" ? "2001:db8:1::" : "2001:db8:2::";
        shell("ip -6 address replace " + network + "10/64 dev " + device + " nodad; ip -6 route replace default via " +
              network + "1 dev " + device + " metric " + (device == "eth0" ? "100" : "700"));
    }
    static void removeIpv6(const std::string& device)
    {
        shell("ip -6 address flush dev " + device + " scope global; ip -6 route flush dev " + device);
    }

    unsigned long count(const std::string& counter) const
    {
        const std::string text = shell(mInOtherEnds + " nft list counter inet access " + counter);
        return std::stoul(text.substr(text.find("packets ") + 8));
    }
    int sent() const
    {
        int sum = 0;
        for (const auto& sender : mSenders)
            sum += sender->sent();
        return sum;
    }

    /// The positive control: more packets arrive in each of the counters.
    void expectToBeSeen(const std::vector<std::string>& counters) const
    {
        for (const std::string& counter : counters) {
            const unsigned long before = count(counter);
            EXPECT_TRUE(comesTrue([&] { return count(counter) > before + 10; })) << counter;
        }
    }

    /// Waits until each sender, the unbound one included, has tried 50 more packets.
    void awaitMore() const
    {
        for (const auto& sender : mSenders) {
            const int before = sender->sent();
            EXPECT_TRUE(comesTrue([&] { return sender->sent() >= before + 50; }));
        }
    }

private:
    static constexpr char far[] = "2001:db8:80::80";

    std::string mInOtherEnds;
    std::vector<std::unique_ptr<SteadySender>> mSenders;
};

/// What leaves from here on, of these counters.
class Beside {
public:
    Beside(const AccessTraffic& traffic, std::vector<std::string> counters)
        : mTraffic(traffic), mCounters(std::move(counters)), mSentBefore(traffic.sent())
    {
        for (const std::string& counter : mCounters)
            mBefore.push_back(mTraffic.count(counter));
    }

    /// Nothing has left, although much was sent.
    void expectNone() const
    {
        mTraffic.awaitMore();
        for (std::size_t i = 0; i < mCounters.size(); ++i) {
            const unsigned long left = mTraffic.count(mCounters[i]) - mBefore[i];
            EXPECT_EQ(0u, left) << mCounters[i];
            std::printf("%s: %lu beside the tunnel; the control saw %lu\n", mCounters[i].c_str(), left, mBefore[i]);
        }
        std::printf("%d packets were sent meanwhile\n", mTraffic.sent() - mSentBefore);
    }

private:
    const AccessTraffic& mTraffic;
    std::vector<std::string> mCounters;
    std::vector<unsigned long> mBefore;
    int mSentBefore;
};

}  // namespace testsupport

#endif
