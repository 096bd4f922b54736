// SPDX-License-Identifier: Apache-2.0
#include "VkNetConfigLib.h"

#include <exception>
#include <mutex>

#include "FirewallControl.h"
#include "Journal.h"
#include "Library.h"
#include "Log.h"

namespace vknetconfig {

namespace {

// Everything that lasts from one request to the next.
struct Library {
    std::mutex lock;
    Journal journal;
    FirewallControl firewall{journal};

    void removeLeft()
    {
        for (const std::string& subject : journal.takeLeftBehind()) {
            if (FirewallControl::isSubject(subject)) firewall.removeLeft(subject);
        }
    }
};

Library& library()
{
    static Library only;
    return only;
}

// No exception may leave a C function; what went wrong becomes one line of the log.
template <class Work>
int carryOut(const char* name, Work work) noexcept
{
    try {
        work();
        return 0;
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: %s", name, error.what());
        return -1;
    }
}

}  // namespace

void warmUp()
{
    library().firewall.warmUp();
}

}  // namespace vknetconfig

extern "C" int CmAddInterfaceCfg2(const char*)
{
    return -1;
}

extern "C" int CmDelInterfaceCfg(const char*)
{
    return -1;
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    return vknetconfig::carryOut("VkFirewallFullCtrl", [json] {
        const vknetconfig::FirewallRequest request = vknetconfig::parseFirewallRequest(json);
        vknetconfig::Library& library = vknetconfig::library();
        const std::lock_guard<std::mutex> lock(library.lock);
        const vknetconfig::Journal::Turn turn = library.journal.takeTurn(!request.remove);
        library.removeLeft();
        library.firewall.apply(request);
    });
}
