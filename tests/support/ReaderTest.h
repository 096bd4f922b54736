// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the routing-table reader share: the global reader on a scripted or on the private namespace's
// kernel, and lists that do give their records back.
#ifndef WFOAL_TEST_READERTEST_H
#define WFOAL_TEST_READERTEST_H

#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "FakeVkLog.h"
#include "NetLinkHelper.h"
#include "RouteMessages.h"
#include "ScriptedKernel.h"
#include "Shell.h"

namespace testsupport {

struct RouteListDeleter {
    void operator()(GPtrArray* list) const
    {
        g_ptr_array_set_free_func(list, g_free);
        g_ptr_array_free(list, TRUE);
    }
};
using RouteListPtr = std::unique_ptr<GPtrArray, RouteListDeleter>;

inline RouteInfo routeAt(const RouteListPtr& list, guint index)
{
    return *static_cast<const RouteInfo*>(list->pdata[index]);
}

/// The global reader was built before the test entered its namespace, so it is replaced by one on this kernel.
inline void readFromThisNamespace()
{
    sNlHelper = NetLinkHelper(UniqueFd());
    sNlHelper = NetLinkHelper(NETLINK_ROUTE, 0);
}

class ScriptedReaderTest : public testing::Test {
protected:
    ScriptedReaderTest()
    {
        fakes::logContext().level = 7;
        sNlHelper = NetLinkHelper(mKernel.takeReaderEnd());
        fakes::clearLog();
    }
    ~ScriptedReaderTest() override { fakes::logContext().level = 7; }

    /// Dumps the scripted table.
    RouteListPtr dump(const std::vector<std::string>& datagrams)
    {
        mKernel.sends(datagrams);
        return RouteListPtr(sNlHelper.getRoutingTableList());
    }

    ScriptedKernel mKernel;
};

/// Devices in the private namespace, and the global reader on its kernel.
class KernelReaderTest : public testing::Test {
protected:
    KernelReaderTest()
    {
        fakes::logContext().level = 7;
        readFromThisNamespace();
        fakes::clearLog();
    }

    ~KernelReaderTest() override
    {
        for (const std::string& name : mAdded)
            shell("ip link del " + name);
    }

    /// A device whose peer is peer0, peer1 …; `route` is what `ip route add` takes.
    void add(const std::string& name, const char* address, const std::string& route = "")
    {
        addVethPair(name, "peer" + std::to_string(mAdded.size()), address);
        mAdded.push_back(name);
        if (!route.empty()) shell("ip route add " + route);
    }

private:
    std::vector<std::string> mAdded;
};

const fakes::LogLine finishedLine{
    7, "NetLinkHelper::getRoutingTableListRequestResp: All Finished Reading Routing Table List"};

/// An errno text follows.
const std::string badPacket = "NetLinkHelper::getRoutingTableListRequestResp: Packet Recieved is Bad: ";

}  // namespace testsupport

inline bool operator==(const RouteInfo& a, const RouteInfo& b)
{
    return a.iifIndex == b.iifIndex && a.oifIndex == b.oifIndex && a.priority == b.priority && a.metric == b.metric &&
           a.mask.s_addr == b.mask.s_addr && a.gateway.s_addr == b.gateway.s_addr && a.src.s_addr == b.src.s_addr &&
           a.prefSrc.s_addr == b.prefSrc.s_addr && a.dst.s_addr == b.dst.s_addr && a.table == b.table;
}

#endif
