// SPDX-License-Identifier: Apache-2.0
//
// The exported functions. Each reads its request whole before anything else happens, waits for its turn among all
// processes, has the first one clean up what dead processes left, and lets no exception out. No signal of the agent is
// handled on the calling thread until the request is done.
#include "VkNetConfigLib.h"

#include <unistd.h>

#include <atomic>
#include <exception>
#include <memory>
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
#include "SignalsBlocked.h"

using namespace vknetconfig;

namespace {

class Session {
public:
    explicit Session(Session* inherited) : mInherited(inherited) {}

    bool isOfThisProcess() const { return mProcess == getpid(); }
    Session* inherited() const { return mInherited; }

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

    std::mutex oneAtATime;
    Journal journal;
    InterfaceControl interfaces{journal};
    FirewallControl firewall{journal};

private:
    const pid_t mProcess = getpid();
    Session* const mInherited;  // what fork copied from the parent, if this process is a child
    pid_t mCleanedUpIn = 0;
};

std::atomic<Session*> spSession{nullptr};

// Made when the library is loaded, or by the first request. A child of fork makes one of its own. The one that it
// inherited is the parent's, maybe in the middle of a request of a thread that the child does not have: it is left as
// it is, mutex included.
Session& session()
{
    Session* current = spSession.load();
    while (current == nullptr || !current->isOfThisProcess()) {
        auto made = std::make_unique<Session>(current);
        if (spSession.compare_exchange_strong(current, made.get())) return *made.release();
    }
    return *current;
}

// A late hook, not the destructor of a static object: static objects of the agent may be destroyed later than those of
// this library, and still make requests. When the process ends while another thread makes one, all is left to the
// kernel.
__attribute__((destructor(200))) void endSession()
{
    Session* const current = spSession.load();
    if (current == nullptr || !current->isOfThisProcess()) return;
    if (!current->oneAtATime.try_lock()) return;
    current->oneAtATime.unlock();
    spSession = current->inherited();
    delete current;
}

enum class Purpose { putInForce, takeBack };

template <class Work>
void inTurn(Purpose purpose, Work work)
{
    Session& here = session();
    const std::lock_guard<std::mutex> lock(here.oneAtATime);
    const Journal::Turn turn = here.journal.takeTurn(purpose == Purpose::putInForce);
    here.cleanUpOnce();
    work(here);
}

template <class Work>
int guarded(const char* function, Work work)
{
    const SignalsBlocked untilDone;
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
