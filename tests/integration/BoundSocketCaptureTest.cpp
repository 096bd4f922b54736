// SPDX-License-Identifier: Apache-2.0
//
// Where the packets of a bound socket go, seen by capturing on every interface.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <poll.h>
#include <sys/socket.h>

#include <optional>
#include <system_error>

#include "ReaderTest.h"
#include "Shell.h"
#include "SocketInterface.h"

namespace {

using namespace testsupport;

constexpr char gateway[] = "192.0.2.1";

// Sees the IPv4 packets that leave through one interface for the gateway.
class Capture {
public:
    explicit Capture(const std::string& name)
        : mSocket(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL)))
    {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(name.c_str()));
        if (!mSocket.valid() || bind(mSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw std::system_error(errno, std::generic_category(), "capture on " + name);
        }
    }

    /// Packets of that protocol for the gateway, seen so far; `source` is where the last one came from.
    int packets(int protocol, std::string* source = nullptr)
    {
        int count = 0;
        iphdr packet;
        while (recv(mSocket.get(), &packet, sizeof packet, 0) >= static_cast<ssize_t>(sizeof packet)) {
            if (packet.version != 4 || packet.protocol != protocol || packet.daddr != inet_addr(gateway)) continue;
            ++count;
            if (source != nullptr) *source = inet_ntoa(in_addr{packet.saddr});
        }
        return count;
    }

private:
    UniqueFd mSocket;
};

sockaddr_in gatewayAddress()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(4500);
    address.sin_addr.s_addr = inet_addr(gateway);
    return address;
}

class BoundSocketCaptureTest : public KernelReaderTest {
protected:
    // The main route to the gateway goes through the one that is not chosen, so that only the binding can lead the
    // packets to the other.
    BoundSocketCaptureTest()
    {
        add("eth0", "10.1.0.2/16");
        add("rmnet0", "10.2.0.2/16");
        shell("ip neigh add 10.1.0.1 lladdr 02:00:00:00:00:01 dev eth0");
        shell("ip neigh add 10.2.0.1 lladdr 02:00:00:00:00:02 dev rmnet0");
        shell("ip route add default via 10.1.0.1 dev eth0 metric 5");
        shell("ip route add default via 10.2.0.1 dev rmnet0 metric 10");
        shell("ip route add 192.0.2.0/24 via 10.2.0.1 dev rmnet0");
        mEthernet.emplace("eth0");
        mCellular.emplace("rmnet0");
    }

    static UniqueFd open(int type) { return UniqueFd(socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

    static void sendTenTo(int descriptor)
    {
        const sockaddr_in address = gatewayAddress();
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(4, sendto(descriptor, "data", 4, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        }
    }

    SocketInterface mSocketInterface;
    std::optional<Capture> mEthernet;
    std::optional<Capture> mCellular;
};

TEST_F(BoundSocketCaptureTest, UnboundSocketFollowsTheRoute)
{
    const UniqueFd socket = open(SOCK_DGRAM);
    sendTenTo(socket.get());
    EXPECT_EQ(0, mEthernet->packets(IPPROTO_UDP));
    EXPECT_EQ(10, mCellular->packets(IPPROTO_UDP));
}

TEST_F(BoundSocketCaptureTest, PacketsOfTheBoundSocketLeaveThroughTheChosenInterfaceOnly)
{
    const UniqueFd socket = open(SOCK_DGRAM);
    ASSERT_EQ(PLUGIN_SUCCESS, mSocketInterface.BindToInterface(nullptr, static_cast<unsigned>(socket.get())));
    EXPECT_EQ("eth0", mSocketInterface.getBoundInterface());
    sendTenTo(socket.get());
    std::string source;
    EXPECT_EQ(10, mEthernet->packets(IPPROTO_UDP, &source));
    EXPECT_EQ("10.1.0.2", source);
    EXPECT_EQ(0, mCellular->packets(IPPROTO_UDP));
}

TEST_F(BoundSocketCaptureTest, BindingFollowsAChangedTable)
{
    shell("ip route del default dev eth0; ip route add default via 10.1.0.1 dev eth0 metric 50");
    const UniqueFd socket = open(SOCK_DGRAM);
    ASSERT_EQ(PLUGIN_SUCCESS, mSocketInterface.BindToInterface(nullptr, static_cast<unsigned>(socket.get())));
    EXPECT_EQ("rmnet0", mSocketInterface.getBoundInterface());
    sendTenTo(socket.get());
    EXPECT_EQ(0, mEthernet->packets(IPPROTO_UDP));
    EXPECT_EQ(10, mCellular->packets(IPPROTO_UDP));
}

TEST_F(BoundSocketCaptureTest, ConnectingLeavesThroughTheChosenInterfaceOnly)
{
    const UniqueFd socket = open(SOCK_STREAM);
    ASSERT_EQ(PLUGIN_SUCCESS, mSocketInterface.BindToInterface(nullptr, static_cast<unsigned>(socket.get())));
    const sockaddr_in address = gatewayAddress();
    EXPECT_EQ(-1, connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ(EINPROGRESS, errno);
    std::string source;
    EXPECT_GE(mEthernet->packets(IPPROTO_TCP, &source), 1);
    EXPECT_EQ("10.1.0.2", source);
    EXPECT_EQ(0, mCellular->packets(IPPROTO_TCP));
}

}  // namespace
