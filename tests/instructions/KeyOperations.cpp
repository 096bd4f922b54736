// SPDX-License-Identifier: Apache-2.0
//
// Runs what an agent waits for or what takes lists, so that callgrind can count its instructions. Each operation runs
// twice, and the second run is counted: the first one fills caches and lazily made tables.
//
//     KeyOperations [--twice NAME] [NAME...]
//
// All operations run when none is named. --twice counts two runs of one operation: a slowdown for a test to find.
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "AgentObjects.h"
#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "Decisions/RouteParser.h"
#include "FakeQuorService.h"
#include "Isolation.h"
#include "NetLinkHelper.h"
#include "NetworkStatus.h"
#include "ObjectRegistry.h"
#include "RouteBatch.h"
#include "RouteMessages.h"
#include "Shell.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "TunDevice.h"
#include "interface/InterfaceRequest.h"

namespace {

using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

void require(bool done, const char* what)
{
    if (!done) throw std::runtime_error(std::string(what) + " failed");
}

/// Something whose instructions are counted, and what has to be done before each run.
struct Operation {
    std::function<void()> run;
    std::function<void()> prepare = [] {};
};

std::string network(int number)
{
    return "20." + std::to_string(number / 256) + "." + std::to_string(number % 256) + ".0";
}

// A dump of 1,000 routes, as the kernel sends it.
Operation readRoutes()
{
    std::string dump;
    for (int number = 0; number < 1000; ++number) {
        dump += testsupport::routeMessage(
            testsupport::routeHeader(24),
            testsupport::attribute(RTA_TABLE, testsupport::bytesOf(std::uint32_t{RT_TABLE_MAIN})) +
                testsupport::attribute(RTA_DST, testsupport::addressBytes(network(number).c_str())) +
                testsupport::attribute(RTA_PRIORITY, testsupport::bytesOf(std::uint32_t{5})) +
                testsupport::attribute(RTA_GATEWAY, testsupport::addressBytes("10.8.0.1")) +
                testsupport::attribute(RTA_OIF, testsupport::bytesOf(std::uint32_t{3})));
    }
    return {[dump] {
        int count = 0;
        for (wfoal::MessageWalk walk(dump.data(), dump.size()); walk.valid(); walk.next()) {
            RouteInfo route{};
            wfoal::parseRouteMessage(walk.message(), walk.header().nlmsg_len, route);
            count += route.oifIndex == 3;
        }
        require(count == 1000, "parsing routes");
    }};
}

void addRoutes()
{
    static bool added = false;
    if (std::exchange(added, true)) return;
    // Opened before this process entered its namespaces. The old socket goes first: there is one port id.
    sNlHelper = NetLinkHelper(UniqueFd());
    sNlHelper = NetLinkHelper(NETLINK_ROUTE, 0);
    testsupport::addVethPair("eth0", "peer0", "10.0.0.2/8");
    testsupport::shell("ip route add default via 10.0.0.1");
    testsupport::RouteBatch batch;
    for (std::uint32_t number = 0; number < 200; ++number) {
        testsupport::NewRoute route;
        route.destination = 0x1e000000 + number * 256;
        route.prefixLength = 24;
        route.gateway = 0x0a000001;
        batch.add(route);
    }
    require(batch.send() == 0, "adding routes");
}

// Among 200 routes of the kernel.
Operation chooseInterface()
{
    addRoutes();
    auto agent = std::make_shared<SocketInterface>();
    return {[agent] { require(agent->getBestInterfaceId() == "eth0", "choosing an interface"); }};
}

// The same routes, and those of the interfaces.
Operation listRoutes()
{
    addRoutes();
    struct Parts {
        SystemInterface system;
        testsupport::RouteArray routes{300};
    };
    auto parts = std::make_shared<Parts>();
    return {[parts] {
        auto count = static_cast<unsigned>(parts->routes.size());
        require(parts->system.EnumerateRoutes(count, parts->routes.pointers()) == PLUGIN_SUCCESS &&
                    parts->routes[200].GetDestination() != nullptr,
                "listing routes");
    }};
}

// 1,000 routes, as the platform is handed them.
Operation readRequest()
{
    std::string text = R"({"ipv4":{"additionalIfRoutes":[)";
    for (int number = 0; number < 1000; ++number) {
        text += number == 0 ? "" : ",";
        text += R"({"ip":")" + network(number) + R"(","netmask":"255.255.255.0","gateway":"10.8.0.1","metric":5})";
    }
    text += R"(],"ip":"0x0200080a","netmask":"0x00ffffff"},"ifName":"norvatun0","ifPriority":5,)"
            R"("networkTechnology":"vpn","networkScope":"wan","networkUsage":["internet"]})";
    return {[text] {
        require(vknetconfig::parseInterfaceRequest(text.c_str()).routes.size() == 1000, "reading a request");
    }};
}

/// 50 routes and 20 rules through the system interface into the kernel.
class Tunnel {
public:
    Tunnel() : mDevice(tunnelInterfaceName), mRoutes(50)
    {
        mDevice.setAddress("10.8.0.2", "10.8.0.1", "255.255.255.0");
        // The objects own their texts, as malloc() made them.
        for (int number = 0; number < 50; ++number) {
            testsupport::ListedRoute& route = mRoutes[static_cast<std::size_t>(number)];
            route.SetDestination(strdup(network(number).c_str()));
            route.SetNetmask(strdup("255.255.255.0"));
            route.SetGateway(strdup("10.8.0.1"));
            route.SetMetric(5);
        }
    }
    void collect()
    {
        mSystem.AddRoute(static_cast<unsigned>(mRoutes.size()), mRoutes.pointers());
        for (int number = 0; number < 20; ++number) {
            mSystem.SetPacketFilterRule("10.0.0.0", "255.0.0.0", 0, network(number).c_str(), "255.255.255.0", 443,
                                        FILTER_PROTOCOL_TCP, FILTER_DIRECTION_OUT, tunnelInterfaceName,
                                        FILTER_ACTION_ACCEPT);
        }
    }
    void apply()
    {
        collect();
        require(mSystem.ApplyConfiguration() == PLUGIN_SUCCESS, "ApplyConfiguration");
    }
    void restore() { mSystem.RestoreSystemConfiguration(); }

private:
    testsupport::TunDevice mDevice;
    testsupport::RouteArray mRoutes;
    SystemInterface mSystem;
};

Operation apply()
{
    auto tunnel = std::make_shared<Tunnel>();
    return {[tunnel] { tunnel->apply(); }, [tunnel] { tunnel->restore(); }};
}

Operation restore()
{
    auto tunnel = std::make_shared<Tunnel>();
    return {[tunnel] { tunnel->restore(); }, [tunnel] { tunnel->apply(); }};
}

// Three levels, among 20 trusted certificates.
Operation verifyServer()
{
    std::filesystem::create_directories("/var/ssl/trustedcerts");
    const Identity root = makeIdentity({"Root", 1, true});
    const Identity intermediate = makeIdentity({"Intermediate", 2, true}, &root);
    testsupport::installTrusted(root);
    for (int number = 1; number < 20; ++number)
        testsupport::installTrusted(makeIdentity({"Other " + std::to_string(number), 2, true}));
    auto judge = std::make_shared<CertificateInterface>();
    return {[judge, between = intermediate.der(), server = makeIdentity({"vpn.example", 3}, &intermediate).der()] {
        bool promptUser = false;
        judge->AddVerificationCert(between.data(), static_cast<unsigned>(between.size()));
        require(judge->VerifyServerCertificate(server.data(), static_cast<unsigned>(server.size()), "vpn.example",
                                               promptUser) == PLUGIN_SUCCESS &&
                    !promptUser,
                "VerifyServerCertificate");
    }};
}

Operation listCertificates()
{
    const Identity identity = makeIdentity({"client", 3});
    for (int number = 0; number < 10; ++number) {
        const std::string name = "client" + std::to_string(number) + ".pem";
        writeFile("/var/ssl/certs/" + name, identity.pem());
        writeFile("/var/ssl/private/rsa" + name, identity.keyPem());
    }
    auto store = std::make_shared<CertificateInterface>();
    return {[store] {
        unsigned count = 0;
        require(store->EnumerateClientCerts(count, nullptr) == PLUGIN_SUCCESS && count == 10, "counting certificates");
        std::vector<ClientCertHandle*> handles(count);
        require(store->EnumerateClientCerts(count, handles.data()) == PLUGIN_SUCCESS, "EnumerateClientCerts");
        for (ClientCertHandle* handle : handles)
            store->DisposeClientCertHandle(handle);
    }};
}

// The certificate manager answers at once.
Operation importBundle()
{
    fakes::bus().onCall = [](const fakes::BusCall& call) {
        QSMessage reply{R"({"returnValue":true})", 1};
        call.callback(call.handle, &reply, call.userData);
    };
    auto store = std::make_shared<CertificateInterface>();
    return {[store, bundle = makeIdentity({"client", 3}).pkcs12("secret")] {
        bool first = false;
        bool second = false;
        ClientCertHandle* handle = nullptr;
        require(store->ImportPKCS12(static_cast<unsigned>(bundle.size()), bundle.data(), "secret", nullptr, first,
                                    second, handle) == PLUGIN_SUCCESS,
                "ImportPKCS12");
        store->DisposeClientCertHandle(handle);
    }};
}

Operation sign()
{
    const Identity identity = makeIdentity({"client", 3});
    writeFile("/tmp/key.pem", identity.keyPem());
    auto element = std::make_shared<CertElement>(identity.certificate.get(), "/tmp/key.pem");
    return {[element] {
        const std::vector<unsigned char> hash(36, 0x5a);
        std::vector<unsigned char> signature(256);
        unsigned char* output = signature.data();
        unsigned int length = 0;
        require(element->SignSSL(hash.data(), 36, output, length, nullptr) == PLUGIN_SUCCESS, "SignSSL");
    }};
}

/// Counts network changes.
class Agent : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override {}
    void OnPowerResume() override {}
    void OnConnectionChange(std::uint32_t) override { ++changes; }
    void OnConfigurationChange() override {}

    int changes = 0;
};

// From the connection manager's text to the agent's callback: the bound interface has lost the internet.
Operation deliverStatus()
{
    struct Parts {
        Agent agent;
        SystemInterface system;
        SocketInterface socket;
    };
    auto parts = std::make_shared<Parts>();
    parts->system.SetSystemPluginCB(&parts->agent);
    parts->socket.getBoundInterface() = "eth0";
    return {[parts] {
                QSMessage message{
                    R"({"returnValue":true,"wifi":{"state":"connected","onInternet":"no","interfaceName":"eth0",)"
                    R"("ipAddress":"10.0.0.2"},"wan":{"state":"connected","onInternet":"yes","interfaceName":"wwan0",)"
                    R"("ipAddress":"10.1.0.2"}})",
                    1};
                handleConManNetworkStatus(nullptr, &message, nullptr);
                require(parts->agent.changes == 1, "notifying the agent");
                parts->agent.changes = 0;
            },
            [parts] {
                setSystemIfObject(&parts->system);
                setSocketIfObject(&parts->socket);
            }};
}

struct NamedOperation {
    const char* name;
    Operation (*make)();
};

// Those without cryptography come first: what making keys leaves in the heap differs from run to run.
constexpr NamedOperation operations[] = {
    {"parse 1,000 routes", readRoutes},
    {"choose an interface", chooseInterface},
    {"list 200 routes", listRoutes},
    {"read a request of 1,000 routes", readRequest},
    {"apply 50 routes and 20 rules", apply},
    {"restore", restore},
    {"deliver a network status", deliverStatus},
    {"verify a server certificate", verifyServer},
    {"list ten client certificates", listCertificates},
    {"import a PKCS#12 bundle", importBundle},
    {"sign", sign},
};

void count(const char* name, const Operation& operation, int runs)
{
    operation.prepare();
    operation.run();
    CALLGRIND_START_INSTRUMENTATION;
    for (int run = 0; run < runs; ++run) {
        // What the preparation costs does not count: collecting begins at the run.
        operation.prepare();
        CALLGRIND_TOGGLE_COLLECT;
        operation.run();
        CALLGRIND_TOGGLE_COLLECT;
    }
    CALLGRIND_DUMP_STATS_AT(name);
    CALLGRIND_STOP_INSTRUMENTATION;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> names(argv + 1, argv + argc);
    std::string slowed;
    if (names.size() >= 2 && names[0] == "--twice") {
        slowed = names[1];
        names.erase(names.begin(), names.begin() + 2);
    }
    const std::string reason = testsupport::enterPrivateNamespaces();
    if (!reason.empty()) {
        std::printf("skipped: no private namespaces: %s\n", reason.c_str());
        return 77;
    }
    try {
        for (const auto& [name, make] : operations) {
            const bool isWanted = names.empty() || std::find(names.begin(), names.end(), name) != names.end();
            if (isWanted) count(name, make(), name == slowed ? 2 : 1);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "KeyOperations: %s\n", error.what());
        return 1;
    }
    return 0;
}
