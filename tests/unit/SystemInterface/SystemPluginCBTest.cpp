// SPDX-License-Identifier: Apache-2.0
//
// The agent's callback record and the notify operations.
#include "SystemInterfaceTest.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SystemPluginCBTest : public SystemInterfaceTest {
protected:
    void notifyAll()
    {
        mSystem->notifyConnectionChange();
        mSystem->notifyPowerResume();
        mSystem->notifyPowerSuspended();
    }
};

TEST_F(SystemPluginCBTest, NullCallbackFailsAndClearsAnEarlierOne)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetSystemPluginCB(&mCallback));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{7, "SystemInterface::SetSystemPluginCB called!!!"}));
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_FAILURE, mSystem->SetSystemPluginCB(nullptr));
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(fakes::LogLine{7, "SystemInterface::SetSystemPluginCB called!!!"},
                    fakes::LogLine{3, "SystemInterface::SetSystemPluginCB Null System Plugin Callback sent!!!"}));
    notifyAll();
    mSystem->RestoreSystemConfiguration();
    EXPECT_THAT(fakes::calls(), testing::Not(testing::Contains(testing::HasSubstr("On"))));
}

TEST_F(SystemPluginCBTest, NotifyWithoutACallbackDoesNothing)
{
    notifyAll();
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(SystemPluginCBTest, ConnectionChangePassesExactlyZero)
{
    mSystem->SetSystemPluginCB(&mCallback);
    mSystem->notifyConnectionChange();
    EXPECT_THAT(fakes::calls(), ElementsAre("OnConnectionChange 0"));
}

TEST_F(SystemPluginCBTest, EachNotifyReachesItsOwnOperationAndLogsNothing)
{
    mSystem->SetSystemPluginCB(&mCallback);
    fakes::clearLog();
    notifyAll();
    EXPECT_THAT(fakes::calls(), ElementsAre("OnConnectionChange 0", "OnPowerResume", "OnPowerSuspended"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(SystemPluginCBTest, LastCallbackWins)
{
    struct : CallListCallback {
        void OnPowerResume() override { fakes::recordCall("second OnPowerResume"); }
    } second;
    mSystem->SetSystemPluginCB(&mCallback);
    mSystem->SetSystemPluginCB(&second);
    mSystem->notifyPowerResume();
    EXPECT_THAT(fakes::calls(), ElementsAre("second OnPowerResume"));
    mSystem->SetSystemPluginCB(nullptr);
}

TEST_F(SystemPluginCBTest, CallbackIsCalledOnTheCallingThread)
{
    static const void* sCaller = nullptr;
    struct : CallListCallback {
        void OnPowerSuspended() override { sCaller = __builtin_thread_pointer(); }
    } callback;
    mSystem->SetSystemPluginCB(&callback);
    mSystem->notifyPowerSuspended();
    EXPECT_EQ(__builtin_thread_pointer(), sCaller);
    mSystem->SetSystemPluginCB(nullptr);
}

}  // namespace
