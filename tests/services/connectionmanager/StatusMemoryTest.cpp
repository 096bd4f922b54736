// SPDX-License-Identifier: Apache-2.0
//
// The texts of the connection manager when memory runs out: whole or not at all.
#include <gmock/gmock.h>

#include <functional>
#include <new>

#include "AllocationFaults.h"
#include "Status.h"

namespace {

void expectWholeOrNone(const std::function<std::string()>& make)
{
    const std::string whole = make();
    bool hasStruck = true;
    int nth = 1;
    for (; hasStruck && nth < 500; ++nth) {
        std::string text = "none";
        const faults::AllocationFault fault(nth, false);
        try {
            text = make();
        } catch (const std::bad_alloc&) {
        }
        hasStruck = fault.hasStruck();
        const faults::NoFault noFault;
        EXPECT_TRUE(text == whole || (text == "none" && hasStruck)) << nth << ": " << text;
    }
    EXPECT_GT(nth, 5);
    EXPECT_FALSE(hasStruck);
}

TEST(StatusMemoryTest, StatusIsMadeWholeOrNotAtAll)
{
    connectionmanager::Status status;
    status.wifi = {true, true, "wlan0", "192.0.2.10"};
    expectWholeOrNone([&] { return connectionmanager::toJson(status); });
}

TEST(StatusMemoryTest, RefusalIsMadeWholeOrNotAtAll)
{
    expectWholeOrNone([] { return connectionmanager::refusalToJson("a reason that is long enough to allocate"); });
}

}  // namespace
