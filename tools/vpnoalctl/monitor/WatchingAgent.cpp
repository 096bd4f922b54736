// SPDX-License-Identifier: Apache-2.0
#include "monitor/WatchingAgent.h"

#include <sys/socket.h>

#include <mutex>
#include <utility>

#include "OuterSocket.h"
#include "kest/SystemPluginCB.h"

namespace vpnoalctl {

namespace {

// The system object refers to it, and is never disposed of.
class Record : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override { tell("the device is about to sleep"); }
    void OnPowerResume() override { tell("the device is awake again"); }
    void OnConnectionChange(std::uint32_t) override { tell("the physical network changed"); }
    void OnConfigurationChange() override { tell("the tunnel's configuration changed"); }

    void setHeard(WatchingAgent::Heard heard)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mHeard = std::move(heard);
    }

private:
    void tell(const char* what)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        if (mHeard) mHeard(what);
    }

    std::mutex mLock;
    WatchingAgent::Heard mHeard;
};

Record& record()
{
    static auto* instance = new Record;
    return *instance;
}

}  // namespace

// The system object is kept: disposing of it would restore the system's configuration under a tunnel that is up.
WatchingAgent::WatchingAgent(PluginLibrary& plugin, Heard heard) : mSocketIf(plugin.create<KEST_SocketPlugin>())
{
    record().setHeard(std::move(heard));
    plugin.createKept<KEST_SystemPlugin>().SetSystemPluginCB(&record());
}

WatchingAgent::~WatchingAgent()
{
    record().setHeard({});
}

std::string WatchingAgent::bind()
{
    mOuter.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (mSocketIf->BindToInterface("", static_cast<unsigned>(mOuter.get())) != PLUGIN_SUCCESS) return {};
    return deviceOf(mOuter.get());
}

}  // namespace vpnoalctl
