// SPDX-License-Identifier: Apache-2.0
//
// A status push while each of its allocations fails: the process lives on, the agent is told once or not at all, and
// the next push is understood.
#include <gtest/gtest.h>

#include <cstdint>

#include "AllocationFaults.h"
#include "FakeQuorService.h"
#include "NetworkStatus.h"
#include "ObjectRegistry.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "VkLogLib.h"
#include "kest/SystemPluginCB.h"

using faults::AllocationFault;

// The recording fake would allocate.
extern "C" void __wrap_VkLogPrint(VkLogContext*, int, const char*, ...);
extern "C" void __wrap_VkLogPrint(VkLogContext*, int, const char*, ...) {}

namespace {

class CountingCallback : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override {}
    void OnPowerResume() override {}
    void OnConnectionChange(std::uint32_t) override { ++count; }
    void OnConfigurationChange() override {}

    int count = 0;
};

class NetworkStatusFaultTest : public testing::Test {
protected:
    NetworkStatusFaultTest()
    {
        mSystem.SetSystemPluginCB(&mAgent);
        setSystemIfObject(&mSystem);
        setSocketIfObject(&mSocket);
        mSocket.getBoundInterface() = "eth0";
    }
    ~NetworkStatusFaultTest() override
    {
        setSystemIfObject(nullptr);
        setSocketIfObject(nullptr);
    }

    /// How often the agent is told of a status in which the bound interface has lost its network.
    int deliver()
    {
        mAgent.count = 0;
        QSMessage message{R"({"wifi":{"state":"disconnected","onInternet":"no"},"wan":{"state":"connected",)"
                          R"("onInternet":"yes","interfaceName":"a name that needs more memory than a short one"}})",
                          1};
        EXPECT_TRUE(handleConManNetworkStatus(nullptr, &message, nullptr));
        return mAgent.count;
    }

    CountingCallback mAgent;
    SystemInterface mSystem;
    SocketInterface mSocket;
};

TEST_F(NetworkStatusFaultTest, FailedAllocationLosesOnePushAtMost)
{
    ASSERT_EQ(1, deliver());
    for (const bool forEver : {false, true}) {
        int lost = 0;
        bool hasStruck = true;
        for (int nth = 1; hasStruck; ++nth) {
            int told = 0;
            {
                const AllocationFault fault(nth, forEver);
                told = deliver();
                hasStruck = fault.hasStruck();
            }
            lost += told == 0 ? 1 : 0;
            EXPECT_EQ(1, deliver()) << "after failed allocation " << nth;
        }
        EXPECT_LT(10, lost);
    }
}

}  // namespace
