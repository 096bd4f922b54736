// SPDX-License-Identifier: Apache-2.0
//
// The system interface and the socket interface of the loaded plug-in, with the real platform on a real kernel.
#include <sys/socket.h>

#include <array>

#include "AgentObjects.h"
#include "KernelState.h"
#include "Shell.h"
#include "World.h"
#include "handles/UniqueFd.h"
#include "kest/StoragePlugin.h"

namespace faults {

namespace {

using testsupport::LoadedPlugin;
using testsupport::NotingCallback;
using testsupport::RouteArray;

constexpr char filterLabel[] = "vpn.vpnoal";

class RouteToAdd : public testsupport::ListedRoute {
public:
    RouteToAdd(const char* destination, const char* netmask, const char* gateway)
    {
        SetDestination(strdup(destination));
        SetNetmask(strdup(netmask));
        SetGateway(strdup(gateway));
        SetInterface(strdup("norvatun0"));
    }
};

void addAccessNetwork()
{
    testsupport::addVethPair("eth0", "peer-eth0", "192.0.2.10/24");
    testsupport::shell("ip route add default via 192.0.2.1 dev eth0 metric 100");
}

/// The device, a plug-in, and one system object a round.
class WithTunnel : public Operation {
protected:
    WithTunnel()
    {
        testsupport::makeInterface("norvatun0");
        mBefore = now();
    }

    NetworkState now() const { return NetworkState::now(mWorld.hasResolved()); }

    void begin() override { mpSystem = mPlugin.createSystem(); }

    /// True when every setter succeeds.
    bool collect()
    {
        const PluginResult results[] = {
            mpSystem->SetDNSServers(mServers.data()),
            mpSystem->SetDNSDomain("corp.example"),
            mpSystem->SetSplitDNSDomains(mDomains.data()),
            mpSystem->AddRoute(2, mRoutes.data()),
            mpSystem->SetPacketFilterRule("10.1.2.3", "255.255.255.255", 0, "10.0.0.0", "255.0.0.0", 2,
                                          FILTER_PROTOCOL_TCP, FILTER_DIRECTION_IN, "eth0", FILTER_ACTION_ACCEPT),
            mpSystem->SetPacketFilterRule("192.168.100.100", "255.255.255.255", 0, nullptr, nullptr, 0,
                                          FILTER_PROTOCOL_ANY, FILTER_DIRECTION_BOTH, nullptr, FILTER_ACTION_DROP),
        };
        for (const PluginResult result : results) {
            if (result != PLUGIN_SUCCESS) return false;
        }
        return true;
    }

    /// The plug-in does not look at results of the packet filter, for compatibility.
    static bool isApplied(const NetworkState& state, const NetworkState& wanted, const Disturbance& disturbance)
    {
        return disturbance.isUndisturbed ? state == wanted : state.isSameButFilter(wanted, filterLabel);
    }

    /// After an apply that gave this result.
    void expectWholeOrNothing(int result, const Disturbance& disturbance)
    {
        const NetworkState state = now();
        if (result == PLUGIN_SUCCESS) {
            if (mInstalled.links.empty()) mInstalled = state;
            expect(mInstalled != mBefore, "the apply changes nothing");
            expect(isApplied(state, mInstalled, disturbance),
                   "applied, but not all of it: " + state.differenceTo(mInstalled));
            return;
        }
        // Its own roll-back fails, too: the undo log keeps what is to be done.
        const bool isPending = disturbance.isForEver && !state.undoLog.empty();
        expect(isPending || state.isSameButFilter(mBefore, filterLabel),
               "refused, but changed: " + state.differenceTo(mBefore));
    }

    void end() override
    {
        if (mpSystem != nullptr) {
            mpSystem->RestoreSystemConfiguration();
            mPlugin.dispose(mpSystem);
        }
        mpSystem = nullptr;
        const NetworkState state = now();
        expect(state == mBefore, "restored, but not as before: " + state.differenceTo(mBefore));
    }

    DnsWorld mWorld;
    LoadedPlugin mPlugin;
    KEST_SystemPlugin* mpSystem = nullptr;

private:
    RouteToAdd mAll{"0.0.0.0", "0.0.0.0", "10.8.0.1"};
    RouteToAdd mOne{"10.20.0.0", "255.255.0.0", "10.8.0.1"};
    std::array<KEST_SystemPluginRoute*, 2> mRoutes{&mAll, &mOne};
    std::array<const char*, 3> mServers{"10.8.0.53", "10.8.0.54", nullptr};
    std::array<const char*, 3> mDomains{"a.example", "b.example", nullptr};
    NetworkState mBefore;
    NetworkState mInstalled;
};

class Apply : public WithTunnel {
    void begin() override
    {
        WithTunnel::begin();
        collect();
    }
    int act() override { return mpSystem->ApplyConfiguration(); }
    void judge(int result, const Disturbance& disturbance) override { expectWholeOrNothing(result, disturbance); }
};

/// A second configuration in place of the first, by the same object.
class ApplyAgain : public WithTunnel {
    void begin() override
    {
        WithTunnel::begin();
        collect();
        mpSystem->ApplyConfiguration();
        mFirst = now();
        collect();
        mpSystem->SetDNSDomain("more.example");
    }
    int act() override { return mpSystem->ApplyConfiguration(); }
    void judge(int result, const Disturbance& disturbance) override
    {
        const NetworkState state = now();
        if (result == PLUGIN_SUCCESS) {
            if (mSecond.links.empty()) mSecond = state;
            expect(isApplied(state, mSecond, disturbance) && state != mFirst,
                   "not the second one: " + state.differenceTo(mSecond));
        } else if (!disturbance.isForEver) {
            expect(state.isSameButFilter(mFirst, filterLabel),
                   "refused, but not the first one: " + state.differenceTo(mFirst));
        }
    }

    NetworkState mFirst;
    NetworkState mSecond;
};

class Settings : public WithTunnel {
    int act() override { return collect() ? PLUGIN_SUCCESS : PLUGIN_FAILURE; }
    void judge(int, const Disturbance& disturbance) override
    {
        const PluginResult result = mpSystem->ApplyConfiguration();
        expect(!disturbance.isUndisturbed || result == PLUGIN_SUCCESS, "an apply fails without a fault");
        expectWholeOrNothing(result, {});
    }
};

class Restore : public WithTunnel {
    void begin() override
    {
        WithTunnel::begin();
        collect();
        mpSystem->ApplyConfiguration();
    }
    int act() override { return mpSystem->RestoreSystemConfiguration(); }
};

class DisposeApplied : public WithTunnel {
    void begin() override
    {
        WithTunnel::begin();
        collect();
        mpSystem->ApplyConfiguration();
    }
    int act() override
    {
        const bool isDisposed = mPlugin.dispose(mpSystem);
        mpSystem = nullptr;
        return isDisposed ? 0 : 1;
    }
    void end() override
    {
        mpSystem = mPlugin.createSystem();
        WithTunnel::end();
    }
};

/// Loads the plug-in, starts and stops the event side. It keeps its registration on the bus and its loop on purpose:
/// here, where the bus library stays loaded, a socket and an eventfd each time.
class Load : public Operation {
    // Without an event thread more of it stays, and a loop whose eventfd GLib could not get has two ends of a pipe.
    bool keepsAfter(Function function) const override
    {
        return function == Function::PthreadCreate || function == Function::GlibMemory;
    }
    // The connections to the bus stay. Each holds the more the further it has come when the library goes.
    long keptAfterFault() const override { return 100; }
    int act() override
    {
        void* library = dlopen(WFOAL_BUILD_DIR "/lib/libVpnWfOal.so", RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) return -2;
        const auto create = reinterpret_cast<CreatePluginFunction>(dlsym(library, "CreatePlugin"));
        const auto dispose = reinterpret_cast<DisposePluginFunction>(dlsym(library, "DisposePlugin"));
        int result = 0;
        for (const char* name :
             {KEST_SYSTEM_INTERFACE, KEST_CERTIFICATE_INTERFACE, KEST_STORAGE_INTERFACE, KEST_SOCKET_INTERFACE}) {
            Plugin* plugin = create(name);
            if (plugin == nullptr) result = -1;
            dispose(plugin);
        }
        dlclose(library);
        return result;
    }

    testsupport::ChildProcess mBus = testsupport::startBus();
};

/// Whatever only looks, or only answers.
class Looks : public Operation {
public:
    // After a failed receive the routes that came before are parsed again, and records of routes are kept on purpose.
    long keptAfterFault() const override { return routes; }

protected:
    static constexpr long routes = 16;  // more than there are

    Looks()
    {
        addAccessNetwork();
        mpSystem = mPlugin.createSystem();
        mpSocket = mPlugin.createSocket();
    }
    ~Looks() override
    {
        mPlugin.dispose(mpSocket);
        mPlugin.dispose(mpSystem);
    }

    LoadedPlugin mPlugin;
    KEST_SystemPlugin* mpSystem;
    KEST_SocketPlugin* mpSocket;
};

class ListRoutes : public Looks {
    void begin() override { mRoutes = std::make_unique<RouteArray>(30); }
    int act() override
    {
        mCount = 30;
        return mpSystem->EnumerateRoutes(mCount, mRoutes->pointers());
    }
    void judge(int result, const Disturbance& disturbance) override
    {
        // Without an array it is counted, with one it fills what there is.
        if (result != PLUGIN_SUCCESS || !disturbance.isUndisturbed) return;
        expect((*mRoutes)[0].GetDestination() != nullptr, "no route without a fault");
    }
    unsigned mCount = 0;
    std::unique_ptr<RouteArray> mRoutes;
};

class ListInterfaces : public Looks {
    void begin() override { mInterfaces = std::make_unique<testsupport::InterfaceArray>(30); }
    int act() override
    {
        unsigned count = 30;
        return mpSystem->EnumerateNetworkInterfaces(count, mInterfaces->pointers());
    }
    std::unique_ptr<testsupport::InterfaceArray> mInterfaces;
};

class DeleteRoute : public Looks {
    void begin() override { testsupport::shell("ip route replace 10.77.0.0/16 via 192.0.2.99 dev eth0"); }
    int act() override
    {
        KEST_SystemPluginRoute* route = &mRoute;
        return mpSystem->DeleteRoute(1, &route);
    }
    void judge(int, const Disturbance& disturbance) override
    {
        const std::string table = testsupport::shell("ip route show");
        const bool isGone = table.find("10.77.0.0/16") == std::string::npos;
        expect(isGone || !disturbance.isUndisturbed, "the route stays: " + table);
        expect(table.find("default via 192.0.2.1") != std::string::npos, "another route is gone: " + table);
    }
    RouteToAdd mRoute{"10.77.0.0", "255.255.0.0", "192.0.2.99"};
};

class Prefer : public Looks {
    int act() override
    {
        unsigned size = sizeof mName;
        return mpSocket->GetPreferredInterface(size, mName, nullptr);
    }
    void judge(int, const Disturbance& disturbance) override
    {
        const std::string name = mName;
        expect(name == "eth0" || (name.empty() && !disturbance.isUndisturbed), "it prefers '" + name + "'");
    }
    char mName[16] = {};
};

class BindSocket : public Looks {
    void begin() override { mSocket.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }
    int act() override { return mpSocket->BindToInterface(nullptr, static_cast<unsigned>(mSocket.get())); }
    void end() override { mSocket.reset(); }
    UniqueFd mSocket;
};

/// The operations that only answer, log or remember.
class PlainAnswers : public Looks {
    int act() override
    {
        char text[8] = {};
        const char* list[] = {"a", nullptr};
        int wrong = 0;
        const auto check = [&wrong](PluginResult result, PluginResult wanted) { wrong += result == wanted ? 0 : 1; };
        check(mpSystem->GetLastErrorString(text, sizeof text), PLUGIN_BUFFER_TOO_SMALL);
        check(mpSocket->GetLastErrorString(text, sizeof text), PLUGIN_BUFFER_TOO_SMALL);
        check(mpSystem->SupportsInterface(KEST_SYSTEM_INTERFACE, 1) ? 0 : 1, 0);
        check(mpSocket->SupportsInterface(KEST_SOCKET_INTERFACE, 1) ? 0 : 1, 0);
        check(mpSystem->SetSystemPluginCB(&mCallback), PLUGIN_SUCCESS);
        check(mpSystem->SetTunnelParams("norvatun0", "", "10.8.0.2", "255.255.255.0", "", "", 1400), PLUGIN_SUCCESS);
        check(mpSystem->SetProxy(PROXY_TYPE_MANUAL, "proxy:3128"), PLUGIN_SUCCESS);
        check(mpSystem->SetProxyExceptionList(list), PLUGIN_SUCCESS);
        check(mpSystem->ClearProxySettings(), PLUGIN_SUCCESS);
        check(mpSystem->SetSystemPluginCB(nullptr), PLUGIN_FAILURE);
        return wrong;
    }
    NotingCallback mCallback;
};

}  // namespace

Entries systemOperations()
{
    constexpr int failure = PLUGIN_FAILURE;
    return {
        {"load-create-dispose-unload", make<Load>, 0, {0, -1, -2}},
        {"ApplyConfiguration", make<Apply>, 0, {0, failure}},
        {"ApplyConfiguration-again", make<ApplyAgain>, 0, {0, failure}},
        {"setters", make<Settings>, 0, {0}},
        {"RestoreSystemConfiguration", make<Restore>, 0, {0}},
        {"DisposePlugin-applied", make<DisposeApplied>, 0, {0}},
        {"EnumerateRoutes", make<ListRoutes>, 0, {0, failure, PLUGIN_BUFFER_TOO_SMALL}},
        {"EnumerateNetworkInterfaces", make<ListInterfaces>, 0, {0, failure, PLUGIN_BUFFER_TOO_SMALL}},
        {"DeleteRoute", make<DeleteRoute>, 0, {0}},
        {"GetPreferredInterface", make<Prefer>, 0, {0}},
        {"BindToInterface", make<BindSocket>, 0, {0, failure}},
        {"plain-answers", make<PlainAnswers>, 0, {0}},
    };
}

}  // namespace faults
