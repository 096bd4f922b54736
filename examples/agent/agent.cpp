// SPDX-License-Identifier: Apache-2.0
//
// A VPN agent from begin to end, without the VPN: everything that it has the plug-in do for a connection, in the order
// of a connection. Between binding its socket and configuring the tunnel a real agent talks to its gateway.
//
//     example-agent [SECONDS]     keeps the tunnel for so long, or until it is interrupted; needs root
//
// The plug-in writes to the log why something failed; VKLOG_TARGET=stderr shows it here, VKLOG_LEVEL=7 all of it.
#include <dlfcn.h>
#include <kest/CertPlugin.h>
#include <kest/SocketPlugin.h>
#include <kest/SystemPlugin.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "TunnelDevice.h"

namespace {

void require(bool done, const std::string& what)
{
    if (!done) throw std::runtime_error(what);
}

// The three functions of the plug-in. It may be unloaded when all of its objects are disposed of.
class PluginLibrary {
public:
    PluginLibrary() : mLibrary(dlopen(PLUGIN_LIBRARY, RTLD_NOW))
    {
        require(mLibrary != nullptr, mLibrary == nullptr ? dlerror() : "");
        mCreate = reinterpret_cast<CreatePluginFunction>(dlsym(mLibrary, "CreatePlugin"));
        mDispose = reinterpret_cast<DisposePluginFunction>(dlsym(mLibrary, "DisposePlugin"));
        require(mCreate != nullptr && mDispose != nullptr, PLUGIN_LIBRARY " is no plug-in");
    }
    ~PluginLibrary() { dlclose(mLibrary); }
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    // An object of one of the four interfaces, which goes back to the plug-in at the end of its scope.
    template <typename Interface>
    std::unique_ptr<Interface, DisposePluginFunction> create(const char* identifier) const
    {
        // The deleter takes the base class; Interface is one.
        std::unique_ptr<Interface, DisposePluginFunction> object(static_cast<Interface*>(mCreate(identifier)),
                                                                 mDispose);
        require(object != nullptr, std::string("the plug-in does not offer ") + identifier);
        return object;
    }

private:
    void* mLibrary;
    CreatePluginFunction mCreate = nullptr;
    DisposePluginFunction mDispose = nullptr;
};

// What the plug-in tells while the tunnel is up. All but the last come on its own thread.
class Events : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override { std::puts("event: the device is going to sleep"); }
    void OnPowerResume() override { std::puts("event: the device is awake"); }
    void OnConnectionChange(std::uint32_t) override { std::puts("event: the network changed, connect again"); }
    void OnConfigurationChange() override { std::puts("event: the tunnel's configuration changed"); }
};

// A route for AddRoute(), which only reads it; EnumerateRoutes() would use the setters.
class Route : public KEST_SystemPluginRoute {
public:
    Route(const char* destination, const char* netmask, const char* gateway)
        : mDestination(destination), mNetmask(netmask), mGateway(gateway)
    {
    }
    void SetDestination(char* text) override { take(mDestination, text); }
    const char* GetDestination() override { return mDestination.c_str(); }
    void SetGateway(char* text) override { take(mGateway, text); }
    const char* GetGateway() override { return mGateway.c_str(); }
    void SetNetmask(char* text) override { take(mNetmask, text); }
    const char* GetNetmask() override { return mNetmask.c_str(); }
    void SetInterface(char* text) override { take(mInterface, text); }
    const char* GetInterface() override { return mInterface.c_str(); }
    void SetReservedValue(std::int32_t) override {}
    std::int32_t GetReservedValue() override { return 0; }
    void SetMetric(unsigned int metric) override { mMetric = metric; }
    unsigned int GetMetric() override { return mMetric; }

private:
    // The text was made with malloc() for this object.
    static void take(std::string& member, char* text)
    {
        member = text != nullptr ? text : "";
        std::free(text);
    }

    std::string mDestination;
    std::string mNetmask;
    std::string mGateway;
    std::string mInterface;
    unsigned int mMetric = 0;
};

// The user's certificates: one call for their number, one for handles, each of which is the agent's to give back.
void listCertificates(KEST_CertPlugin& certificates)
{
    unsigned int count = 0;
    if (certificates.EnumerateClientCerts(count, nullptr) != PLUGIN_SUCCESS) count = 0;
    std::printf("client certificates: %u\n", count);
    if (count == 0) return;
    std::vector<ClientCertHandle*> handles(count);
    require(certificates.EnumerateClientCerts(count, handles.data()) == PLUGIN_SUCCESS, "cannot list certificates");
    handles.resize(count);
    for (ClientCertHandle* handle : handles) {
        unsigned int length = 0;
        unsigned char* der = nullptr;  // stays the handle's; handle->SignSSL() signs a handshake with its key
        handle->GetCertDer(length, der);
        std::printf("  a certificate of %u bytes\n", length);
        certificates.DisposeClientCertHandle(handle);
    }
}

// The connection to the gateway must not go into the tunnel that it carries: it is bound to a physical interface.
int openOuterSocket(KEST_SocketPlugin& sockets)
{
    std::array<char, 16> name{};
    unsigned int size = name.size();
    require(sockets.GetPreferredInterface(size, name.data(), nullptr) == PLUGIN_SUCCESS, "no interface was chosen");
    require(name[0] != '\0', "there is no network: a default route through eth*, wwan*, rmnet* or ppp* is needed");
    const int outer = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(outer >= 0, "no socket");
    require(sockets.BindToInterface(nullptr, static_cast<unsigned int>(outer)) == PLUGIN_SUCCESS,
            "the socket is not bound");
    std::printf("outer socket bound to %s\n", name.data());
    return outer;
}

// Settings collect in the object; ApplyConfiguration() installs them.
void configureTunnel(KEST_SystemPlugin& system)
{
    const char* servers[] = {"10.20.0.53", nullptr};
    system.SetDNSServers(servers);
    system.SetDNSDomain("corp.example");
    Route network("10.20.0.0", "255.255.0.0", "10.8.0.1");
    KEST_SystemPluginRoute* routes[] = {&network};
    system.AddRoute(1, routes);
    system.SetPacketFilterRule(nullptr, nullptr, 0, nullptr, nullptr, 25, FILTER_PROTOCOL_TCP, FILTER_DIRECTION_OUT,
                               "norvatun0", FILTER_ACTION_DROP);
    require(system.ApplyConfiguration() == PLUGIN_SUCCESS, "the configuration is not applied (see the log)");
    std::puts("tunnel configured: 10.20.0.0/16 and corp.example through norvatun0, no mail from it");
}

void run(const sigset_t& interruptions, long seconds)
{
    PluginLibrary plugin;
    Events events;  // outlives the system object
    const auto system = plugin.create<KEST_SystemPlugin>(KEST_SYSTEM_INTERFACE);
    const auto certificates = plugin.create<KEST_CertPlugin>(KEST_CERTIFICATE_INTERFACE);
    const auto sockets = plugin.create<KEST_SocketPlugin>(KEST_SOCKET_INTERFACE);
    system->SetSystemPluginCB(&events);

    listCertificates(*certificates);
    const int outer = openOuterSocket(*sockets);
    const TunnelDevice tunnel("10.8.0.2", "10.8.0.1", "255.255.255.0");
    configureTunnel(*system);
    std::puts("ready");
    const timespec limit{seconds, 0};
    sigtimedwait(&interruptions, nullptr, seconds > 0 ? &limit : nullptr);
    system->RestoreSystemConfiguration();  // disposing of the object does it too, so that no failure leaves anything
    std::puts("restored");
    close(outer);
}

}  // namespace

int main(int argc, char** argv)
{
    (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
    char* end = nullptr;
    const long seconds = argc > 1 ? std::strtol(argv[1], &end, 10) : 0;
    if (argc > 2 || (argc > 1 && (*end != '\0' || seconds <= 0))) {
        (void)std::fputs("usage: example-agent [SECONDS]\n", stderr);
        return 2;
    }
    // Blocked before the plug-in starts its thread, so that an interruption arrives where it is waited for.
    sigset_t interruptions;
    sigemptyset(&interruptions);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&interruptions, signal);
    sigprocmask(SIG_BLOCK, &interruptions, nullptr);
    try {
        run(interruptions, seconds);
        return 0;
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "example-agent: %s\n", error.what());
        return 1;
    }
}
