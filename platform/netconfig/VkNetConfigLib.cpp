// SPDX-License-Identifier: Apache-2.0
//
// The exported functions. Each reads its request whole before anything else happens, waits for its turn among all
// processes, has the first one clean up what dead processes left, and lets no exception out.
#include "VkNetConfigLib.h"

#include <unistd.h>

#include <exception>
#include <mutex>
#include <string>

#include "FirewallControl.h"
#include "InterfaceControl.h"
#include "InterfaceName.h"
#include "InterfaceRequest.h"
#include "Journal.h"
#include "Library.h"
#include "Log.h"
#include "RequestError.h"

using namespace vknetconfig;

namespace {

class Session {
public:
    /// Cleans up after dead processes, once a process, forked ones included. What cannot be taken back is left for
    /// another try.
    void cleanUpOnce()
    {
        if (mCleanedUpIn == getpid()) return;
        mCleanedUpIn = getpid();
        for (const std::string& subject : journal.takeLeftBehind()) {
            try {
                if (InterfaceControl::isSubject(subject)) interfaces.removeLeft(subject);
                if (FirewallControl::isSubject(subject)) firewall.removeLeft(subject);
            } catch (const std::exception& error) {
                VKNETCONFIG_WARNING("%s: cleaning up after an ended process: %s", subject.c_str(), error.what());
                journal.release(subject);
            }
        }
    }

    Journal journal;
    InterfaceControl interfaces{journal};
    FirewallControl firewall{journal};

private:
    pid_t mCleanedUpIn = 0;
};

// Made when the library is loaded or by the first request; ends with the library.
Session& session()
{
    static Session only;
    return only;
}

std::mutex sOneAtATime;

enum class Purpose { putInForce, takeBack };

template <class Work>
void inTurn(Purpose purpose, Work work)
{
    const std::lock_guard<std::mutex> lock(sOneAtATime);
    Session& here = session();
    const Journal::Turn turn = here.journal.takeTurn(purpose == Purpose::putInForce);
    here.cleanUpOnce();
    work(here);
}

template <class Work>
int guarded(const char* function, Work work)
{
    try {
        work();
        return 0;
    } catch (const std::exception& error) {
        VKNETCONFIG_ERROR("%s: %s", function, error.what());
    } catch (...) {
        VKNETCONFIG_ERROR("%s: unknown failure", function);
    }
    return -1;
}

}  // namespace

void vknetconfig::warmUp()
{
    session().firewall.warmUp();
}

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    return guarded(__func__, [json] {
        const InterfaceRequest request = parseInterfaceRequest(json);
        inTurn(Purpose::putInForce, [&](Session& here) { here.interfaces.apply(request); });
    });
}

extern "C" int CmDelInterfaceCfg(const char* ifName)
{
    return guarded(__func__, [ifName] {
        if (ifName == nullptr) throw RequestError("ifName", "is a null pointer");
        const std::string fault = interfaceNameFault(ifName);
        if (!fault.empty()) throw RequestError("ifName", fault);
        inTurn(Purpose::takeBack, [&](Session& here) { here.interfaces.remove(ifName); });
    });
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    return guarded(__func__, [json] {
        const FirewallRequest request = parseFirewallRequest(json);
        const Purpose purpose = request.remove ? Purpose::takeBack : Purpose::putInForce;
        inTurn(purpose, [&](Session& here) { here.firewall.apply(request); });
    });
}
