// SPDX-License-Identifier: Apache-2.0
//
// The exported functions. Each reads its whole request first, waits for the lock over all processes, removes what is
// stale, and lets no exception out. Until the request is done, the calling thread handles no signal of the agent.
#include "VkNetConfigLib.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "Log.h"
#include "RequestError.h"
#include "SignalsBlocked.h"
#include "firewall/FirewallControl.h"
#include "guard/GuardControl.h"
#include "guard/GuardPolicy.h"
#include "interface/InterfaceControl.h"
#include "interface/InterfaceRequest.h"
#include "text/Names.h"
#include "undolog/KeptSubjects.h"
#include "undolog/UndoLog.h"

using namespace vknetconfig;

namespace {

// The subjects of a request. The request first removes what is stale; one that applies keeps stale entries of its own
// subjects, to adopt them. A request for a packet filter leaves interfaces alone: an agent that starts again replaces
// its filter first, and its interface must keep the routes until they are adopted.
struct Scope {
    std::set<std::string> subjects;
    bool isApplied;
    bool cleansInterfaces;
};

class Session {
public:
    explicit Session(Session* inherited) : mInherited(inherited) {}

    bool isOfThisProcess() const { return mProcess == getpid(); }
    Session* inherited() const { return mInherited; }

    // What cannot be removed stays for a retry.
    void cleanUp(const Scope& scope)
    {
        const auto isWanted = [&scope](const std::string& subject) {
            if (scope.isApplied && scope.subjects.count(subject) != 0) return false;
            if (isKept(subject)) return false;
            return scope.cleansInterfaces || FirewallControl::isSubject(subject);
        };
        std::vector<std::string> stale = undoLog.claimStaleEntries(isWanted);
        // A guard outlives the routes that it guards.
        std::stable_partition(stale.begin(), stale.end(),
                              [](const std::string& subject) { return !GuardControl::isSubject(subject); });
        for (const std::string& subject : stale) {
            try {
                if (InterfaceControl::isSubject(subject)) interfaces.removeStale(subject);
                if (GuardControl::isSubject(subject)) guards.removeStale(subject);
                if (FirewallControl::isSubject(subject)) firewall.removeStale(subject);
            } catch (const std::exception& error) {
                VKNETCONFIG_WARNING("%s: removing the stale configuration: %s", subject.c_str(), error.what());
                undoLog.release(subject);
            }
        }
    }

    void reportLost()
    {
        for (const UndoLog::Lost& lost : undoLog.takeLost()) {
            if (lost.by != 0) {
                VKNETCONFIG_ERROR("%s: process %d removed the configuration", lost.subject.c_str(), lost.by);
            } else {
                VKNETCONFIG_ERROR("%s: the files of the undo log were removed", lost.subject.c_str());
            }
        }
    }

    std::mutex mutex;
    UndoLog undoLog;
    GuardControl guards{undoLog};
    InterfaceControl interfaces{undoLog, guards};
    FirewallControl firewall{undoLog};

private:
    const pid_t mProcess = getpid();
    Session* const mInherited;  // what fork copied from the parent, if this process is a child
};

std::atomic<Session*> spSession{nullptr};

// Made by the first request. A child of fork makes its own session. The inherited one is the parent's, and another
// thread of the parent may have been in the middle of a request. So it is not touched, nor is its mutex.
Session& currentSession()
{
    Session* current = spSession.load();
    while (current == nullptr || !current->isOfThisProcess()) {
        auto made = std::make_unique<Session>(current);
        if (spSession.compare_exchange_strong(current, made.get())) return *made.release();
    }
    return *current;
}

// A late destructor function, not the destructor of a static object: static objects of the agent may be destroyed later
// than those of this library, and still make requests. If another thread makes a request while the process ends,
// nothing is released here.
__attribute__((destructor(200))) void endSession()
{
    Session* const current = spSession.load();
    if (current == nullptr || !current->isOfThisProcess()) return;
    if (!current->mutex.try_lock()) return;
    current->mutex.unlock();
    spSession = current->inherited();
    delete current;
}

template <class Work>
void withLockedSession(const Scope& scope, Work work)
{
    Session& session = currentSession();
    const std::lock_guard<std::mutex> threadLock(session.mutex);
    const UndoLog::Lock processLock =
        session.undoLog.lock(scope.isApplied ? UndoLog::Create::Yes : UndoLog::Create::No);
    session.reportLost();
    session.cleanUp(scope);
    work(session);
}

Scope scopeOf(const std::string& ifName, bool isApplied)
{
    return {{InterfaceControl::subjectOf(ifName), GuardControl::subjectOf(ifName)}, isApplied, true};
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

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    return guarded(__func__, [json] {
        const InterfaceRequest request = parseInterfaceRequest(json);
        const std::optional<GuardRules> guard = guardFor(request);
        withLockedSession(scopeOf(request.ifName, true),
                          [&](Session& session) { session.interfaces.apply(request, guard); });
    });
}

extern "C" int CmDelInterfaceCfg(const char* ifName)
{
    return guarded(__func__, [ifName] {
        if (ifName == nullptr) throw RequestError("ifName", "is a null pointer");
        const wfoal::Check check = wfoal::checkInterfaceName(ifName);
        if (!check) throw RequestError("ifName", check.reason());
        if (isLeftToReplacement(InterfaceControl::subjectOf(ifName))) return;
        withLockedSession(scopeOf(ifName, false), [&](Session& session) { session.interfaces.remove(ifName); });
    });
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    return guarded(__func__, [json] {
        const FirewallRequest request = parseFirewallRequest(json);
        const std::string subject = FirewallControl::subjectOf(request.label);
        if (request.remove && isLeftToReplacement(subject)) return;
        const Scope scope{{subject}, !request.remove, false};
        withLockedSession(scope, [&](Session& session) { session.firewall.apply(request); });
    });
}
