// SPDX-License-Identifier: Apache-2.0
//
// Requests while addresses come and go all the time, which interrupts the kernel's dumps.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "KernelState.h"
#include "VkNetConfigLib.h"
#include "handles/Mnl.h"

using namespace testsupport;

namespace {

constexpr int addresses = 1000;

void change(mnl_socket* socket, std::uint16_t type, unsigned index, int number)
{
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | (type == RTM_NEWADDR ? NLM_F_CREATE | NLM_F_REPLACE : 0);
    auto* header = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
    header->ifa_family = AF_INET;
    header->ifa_prefixlen = 32;
    header->ifa_index = index;
    const std::uint32_t address = htonl(0x0a630000U + static_cast<unsigned>(number));  // 10.99.0.0
    mnl_attr_put_u32(message, IFA_LOCAL, address);
    mnl_attr_put_u32(message, IFA_ADDRESS, address);
    mnl_socket_sendto(socket, message, message->nlmsg_len);
}

// Adds and removes 1,000 addresses of an interface for as long as it lives.
class Flapping {
public:
    explicit Flapping(const std::string& name)
        : mIndex(if_nametoindex(name.c_str())), mThread([this] {
              const MnlSocketPtr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
              while (!mDone) {
                  for (const std::uint16_t type : {RTM_NEWADDR, RTM_DELADDR}) {
                      for (int number = 0; number < addresses; ++number)
                          change(socket.get(), type, mIndex, number);
                  }
                  ++mRounds;
              }
          })
    {
    }
    ~Flapping()
    {
        mDone = true;
        mThread.join();
    }
    int rounds() const { return mRounds; }

private:
    unsigned mIndex;
    std::atomic<bool> mDone{false};
    std::atomic<int> mRounds{0};
    std::thread mThread;
};

void expectNoneRefused(const char* flapping)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    setenv("VKLOG_LEVEL", "3", 1);
    makeInterface("vpn0", "");
    run("ip link add other0 type veth peer name peer-other0");
    const std::string json = requestWithRoutes(5, R"("ip":"0x0200080a","netmask":"0x00ffffff",)");
    const Flapping background(flapping);
    int refused = 0;
    for (int count = 0; count < 300 || (background.rounds() < 3 && count < 3000); ++count) {
        if (CmAddInterfaceCfg2(json.c_str()) != 0) ++refused;
        if (CmDelInterfaceCfg("vpn0") != 0) ++refused;
    }
    EXPECT_EQ(refused, 0) << "of 600 or more";
    EXPECT_GE(background.rounds(), 3);
}

}  // namespace

TEST(InterfaceFlapTest, RequestsAreNotRefusedWhileAddressesOfAnotherInterfaceChange)
{
    expectNoneRefused("other0");
}

TEST(InterfaceFlapTest, RequestsAreNotRefusedWhileAddressesOfTheSameInterfaceChange)
{
    expectNoneRefused("vpn0");
}
