// SPDX-License-Identifier: Apache-2.0
//
// Fault loops: for each operation and kind of call, the 1st, 2nd, 3rd … call fails until none does. Each time the
// result must be one of those that the operation may have, nothing may be left open, and the next undisturbed run must
// succeed.
#include <sys/socket.h>

#include <filesystem>
#include <functional>
#include <set>

#include "AgentObjects.h"
#include "Faults.h"
#include "Files.h"
#include "ReaderTest.h"
#include "SocketInterface.h"
#include "SystemInterface.h"

namespace {

using testsupport::openDescriptors;

using namespace testsupport;

struct Operation {
    const char* name;
    std::function<PluginResult()> run;
    std::set<PluginResult> allowed;
};

class RoutingFaultsTest : public KernelReaderTest {
protected:
    RoutingFaultsTest()
    {
        add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
        add("usb0", "10.2.0.2/16", "10.9.0.0/16 via 10.2.0.1");
    }

    PluginResult listRoutes()
    {
        unsigned count = 20;
        RouteArray routes(count);
        return mSystem.EnumerateRoutes(count, routes.pointers());
    }

    PluginResult listInterfaces()
    {
        unsigned count = 20;
        InterfaceArray interfaces(count);
        return mSystem.EnumerateNetworkInterfaces(count, interfaces.pointers());
    }

    PluginResult preferred()
    {
        char name[16];
        unsigned size = sizeof name;
        return mSocketInterface.GetPreferredInterface(size, name, nullptr);
    }

    PluginResult bindSocket()
    {
        const UniqueFd bound(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!bound.valid()) return PLUGIN_FAILURE;
        const PluginResult result = mSocketInterface.BindToInterface(nullptr, static_cast<unsigned>(bound.get()));
        EXPECT_EQ(result == PLUGIN_SUCCESS ? "eth0" : "", mSocketInterface.getBoundInterface());
        return result;
    }

    void expectUndisturbedRun(const Operation& operation)
    {
        EXPECT_EQ(PLUGIN_SUCCESS, operation.run()) << operation.name;
    }

    void failEachCall(const Operation& operation, Call kind)
    {
        const auto before = openDescriptors();
        int struck = 0;
        for (bool more = true; more; ++struck) {
            ASSERT_LT(struck, 200);
            PluginResult result;
            {
                const Fault fault(kind, struck + 1, EIO);
                result = operation.run();
                more = fault.hasStruck();
            }
            EXPECT_EQ(1u, operation.allowed.count(result))
                << operation.name << " without " << nameOf(kind) << " " << struck + 1;
            expectUndisturbedRun(operation);
            EXPECT_EQ(before, openDescriptors()) << operation.name << " without " << nameOf(kind) << " " << struck + 1;
            mStruck += more ? 1 : 0;
        }
    }

    int mStruck = 0;
    SystemInterface mSystem;
    SocketInterface mSocketInterface;
};

TEST_F(RoutingFaultsTest, EachOperationSurvivesEachFailingCall)
{
    const Operation operations[] = {
        {"EnumerateRoutes", [this] { return listRoutes(); }, {PLUGIN_SUCCESS, PLUGIN_FAILURE}},
        {"EnumerateNetworkInterfaces", [this] { return listInterfaces(); }, {PLUGIN_SUCCESS, PLUGIN_FAILURE}},
        {"GetPreferredInterface", [this] { return preferred(); }, {PLUGIN_SUCCESS}},
        {"BindToInterface", [this] { return bindSocket(); }, {PLUGIN_SUCCESS, PLUGIN_FAILURE}},
    };
    for (const Operation& operation : operations) {
        expectUndisturbedRun(operation);
        for (int kind = 0; kind < callKinds; ++kind)
            failEachCall(operation, static_cast<Call>(kind));
    }
    EXPECT_GT(mStruck, 100);
}

// The kernel's answers, in a table that takes several datagrams.
TEST_F(RoutingFaultsTest, CallAfterFailedReceivesSeesTheTableAsItIsThen)
{
    std::string batch;
    for (int i = 0; i < 900; ++i) {
        batch += "route add 10.77." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1) + " via 10.2.0.1\\n";
    }
    shell("printf '" + batch + "' | ip -batch -");
    clearReceiveFlags();
    ASSERT_EQ("eth0", mSocketInterface.getBestInterfaceId());
    ASSERT_GT(receiveFlags().size(), 4u);
    const int receives = static_cast<int>(receiveFlags().size());
    for (int first = 1; first <= receives; ++first) {
        for (const int times : {1, 2, 3, 1000}) {
            {
                const Fault fault(Call::Receive, first, ENOBUFS, times);
                mSocketInterface.getBestInterfaceId();
            }
            shell("ip route del default via 10.1.0.1");
            EXPECT_EQ("", mSocketInterface.getBestInterfaceId()) << first << " " << times;
            shell("ip route add default via 10.1.0.1");
            EXPECT_EQ("eth0", mSocketInterface.getBestInterfaceId()) << first << " " << times;
        }
    }
}

TEST_F(RoutingFaultsTest, ListedRouteWithoutMemoryForATextHasNone)
{
    const Fault fault(Call::Copy, 1, ENOMEM);
    unsigned count = 20;
    RouteArray routes(count);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateRoutes(count, routes.pointers()));
    EXPECT_TRUE(fault.hasStruck());
}

}  // namespace
