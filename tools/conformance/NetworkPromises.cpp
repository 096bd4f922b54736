// SPDX-License-Identifier: Apache-2.0
//
// The promises of VkNetConfigLib.h about requests that are carried out. They need an interface that may be configured,
// and the right to do so. Addresses and networks are those reserved for documentation.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "NetworkState.h"
#include "Platform.h"
#include "Threads.h"
#include "VkNetConfigLib.h"

namespace conformance {

namespace {

constexpr char header[] = "VkNetConfigLib.h";

constexpr char emptyRequest[] = R"({"label":"conform","chainNew":"CONFORM","rules":[]})";
constexpr char removal[] = R"({"label":"conform","chainDelete":"CONFORM"})";

const std::string& interfaceOf(const Platform& platform)
{
    const std::string& name = platform.settings().interfaceName;
    if (name.empty())
        throw Untestable{"would change the network; name an interface that may be configured (--interface)"};
    return name;
}

// An address as the plug-in writes it: the network-order address read as a host integer.
std::string hexAddress(const char* dotted)
{
    char hex[sizeof "0x00000000"];
    std::snprintf(hex, sizeof hex, "0x%08x", inet_addr(dotted));
    return hex;
}

// 192.0.2.1 and a network behind it; `route` more routes, as JSON with a comma before each.
std::string request(const Platform& platform, const std::string& network, const std::string& routes = "")
{
    return R"({"ifName":")" + interfaceOf(platform) +
           R"(","ifPriority":5,"networkTechnology":"vpn","networkScope":"wan","networkUsage":["internet"],"ipv4":{)"
           R"("ip":")" +
           hexAddress("192.0.2.1") + R"(","netmask":")" + hexAddress("255.255.255.0") +
           R"(","additionalIfRoutes":[{"ip":")" + network + R"(","netmask":"255.255.255.0","gateway":"","metric":0})" +
           routes + "]}}";
}

void install(Platform& platform, const std::string& json)
{
    const int result = NETCONFIG(CmAddInterfaceCfg2)(json.c_str());
    expect(result == 0, "CmAddInterfaceCfg2() returned " + std::to_string(result) + " for " + json);
}

void removeConfiguration(Platform& platform)
{
    const int result = NETCONFIG(CmDelInterfaceCfg)(interfaceOf(platform).c_str());
    expect(result == 0, "CmDelInterfaceCfg() returned " + std::to_string(result));
}

void filter(Platform& platform, const std::string& json)
{
    interfaceOf(platform);
    const int result = NETCONFIG(VkFirewallFullCtrl)(json.c_str());
    expect(result == 0, "VkFirewallFullCtrl() returned " + std::to_string(result) + " for " + json);
}

std::string dropTo(const LoopbackPort& port)
{
    return R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","destination":"127.0.0.1",)"
           R"("protocol":"UDP","destinationPort":)" +
           std::to_string(port.port()) + R"(,"jumpTo":"DROP"}]})";
}

void expectState(const Platform& platform, const std::string& before, const std::string& when)
{
    const std::string now = networkState(interfaceOf(platform));
    expect(now == before, "addresses and routes " + when + " differ from those before:\n" + before + "now:\n" + now);
}

void deletingNothingIsNoFailure(Platform& platform)
{
    const std::string before = networkState(interfaceOf(platform));
    removeConfiguration(platform);
    filter(platform, removal);
    expectState(platform, before, "after removing nothing");
}

void missingInterfaceIsRefused(Platform& platform)
{
    interfaceOf(platform);
    expect(NETCONFIG(CmAddInterfaceCfg2)(R"({"ifName":"conform-none"})") != 0,
           "an interface that is not there was taken");
}

void takesEffectAtOnce(Platform& platform)
{
    install(platform, request(platform, "198.51.100.0"));
    expect(isUpWithAddress(interfaceOf(platform), "192.0.2.1"), "the interface is not up with its address");
    expect(hasRoute(interfaceOf(platform), "198.51.100.0", 24), "the route is not there");
    removeConfiguration(platform);
}

void removesExactly(Platform& platform)
{
    const std::string before = networkState(interfaceOf(platform));
    install(platform, request(platform, "198.51.100.0"));
    removeConfiguration(platform);
    expectState(platform, before, "after its removal");
}

void replacesTheOneBefore(Platform& platform)
{
    install(platform, request(platform, "198.51.100.0"));
    install(platform, request(platform, "203.0.113.0"));
    expect(hasRoute(interfaceOf(platform), "203.0.113.0", 24), "the new route is not there");
    expect(!hasRoute(interfaceOf(platform), "198.51.100.0", 24), "the route of the request before is still there");
    removeConfiguration(platform);
}

void allOrNothing(Platform& platform)
{
    install(platform, request(platform, "198.51.100.0"));
    const std::string before = networkState(interfaceOf(platform));
    // A gateway of another network cannot be reached.
    const std::string bad =
        request(platform, "203.0.113.0",
                R"(,{"ip":"203.0.113.0","netmask":"255.255.255.128","gateway":"233.252.0.1","metric":0})");
    expect(NETCONFIG(CmAddInterfaceCfg2)(bad.c_str()) != 0, "a route through an unreachable gateway was taken");
    expectState(platform, before, "after a request that failed");
    removeConfiguration(platform);
}

void allTrafficInTwoHalves(Platform& platform)
{
    install(platform,
            request(platform, "198.51.100.0", R"(,{"ip":"0.0.0.0","netmask":"0.0.0.0","gateway":"","metric":0})"));
    expect(hasRoute(interfaceOf(platform), "0.0.0.0", 1) && hasRoute(interfaceOf(platform), "128.0.0.0", 1),
           "the two /1 routes are not there");
    removeConfiguration(platform);
}

// A process that has loaded the libraries for itself and installed a configuration. It lives as long as the object.
class OtherProcess {
public:
    OtherProcess(const Settings& settings, const std::string& json)
    {
        int ends[2];
        if (pipe(ends) != 0) throw Untestable{"there is no pipe"};
        mChild = fork();
        if (mChild == 0) live(settings, json, ends[1]);
        close(ends[1]);
        char result = 1;
        const bool told = read(ends[0], &result, 1) == 1;
        close(ends[0]);
        mConfigured = told && result == 0;
    }
    ~OtherProcess()
    {
        kill(mChild, SIGKILL);
        waitpid(mChild, nullptr, 0);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    bool configured() const { return mConfigured; }

private:
    [[noreturn]] static void live(const Settings& settings, const std::string& json, int answer)
    {
        Platform platform(settings);
        char result = 1;
        try {
            result = NETCONFIG(CmAddInterfaceCfg2)(json.c_str()) == 0 ? 0 : 1;
        } catch (const Broken&) {
            // the result stays 1: it failed
        }
        if (write(answer, &result, 1) == 1) pause();
        _exit(1);
    }

    pid_t mChild = -1;
    bool mConfigured = false;
};

void belongsToItsProcess(Platform& platform)
{
    const std::string first = request(platform, "198.51.100.0");
    {
        const OtherProcess other(platform.settings(), first);
        expect(other.configured(), "the other process could not install its configuration");
        const std::string second = request(platform, "203.0.113.0");
        expect(NETCONFIG(CmAddInterfaceCfg2)(second.c_str()) != 0, "what another process had installed was replaced");
        expect(NETCONFIG(CmDelInterfaceCfg)(interfaceOf(platform).c_str()) != 0,
               "what another process had installed was removed");
        expect(hasRoute(interfaceOf(platform), "198.51.100.0", 24), "what another process had installed was changed");
    }
    removeConfiguration(platform);
}

void cleanedUpAfterTheEnd(Platform& platform)
{
    const std::string before = networkState(interfaceOf(platform));
    {
        const OtherProcess other(platform.settings(), request(platform, "198.51.100.0"));
        expect(other.configured(), "the other process could not install its configuration");
    }
    expect(hasRoute(interfaceOf(platform), "198.51.100.0", 24), "the configuration ended with its process");
    NETCONFIG(CmDelInterfaceCfg)("conformabsent0");  // a request for another interface
    expectState(platform, before, "after the first request of the next process for an interface");
}

void filterDropsAndPasses(Platform& platform)
{
    const LoopbackPort port;
    const LoopbackPort other;
    if (!port.isReachable()) throw Untestable{"the loopback device is not up"};
    filter(platform, dropTo(port));
    expect(!port.isReachable(), "a packet that the rule drops arrived");
    expect(other.isReachable(), "a packet that no rule decides did not arrive");
    filter(platform, removal);
    expect(port.isReachable(), "the removed filter still drops packets");
}

void filterIsReplaced(Platform& platform)
{
    const LoopbackPort first;
    const LoopbackPort second;
    if (!first.isReachable()) throw Untestable{"the loopback device is not up"};
    filter(platform, dropTo(first));
    filter(platform, dropTo(second));
    expect(first.isReachable() && !second.isReachable(), "the second filter did not replace the first");
    filter(platform, emptyRequest);
    expect(second.isReachable(), "an empty filter did not replace the one before");
    filter(platform, removal);
}

void rulesAreTriedInOrder(Platform& platform)
{
    const LoopbackPort port;
    if (!port.isReachable()) throw Untestable{"the loopback device is not up"};
    std::string json = dropTo(port);
    const std::string accept =
        R"({"operation":"append","destination":"127.0.0.0/255.0.0.0","protocol":"UDP","jumpTo":"ACCEPT"},)";
    json.insert(json.find('[') + 1, accept);
    filter(platform, dropTo(port));
    expect(!port.isReachable(), "a packet that the rule drops arrived");
    filter(platform, json);
    expect(port.isReachable(), "a later rule decided");
    filter(platform, removal);
}

void callsFromAnyThread(Platform& platform)
{
    const std::string before = networkState(interfaceOf(platform));
    const std::string json = request(platform, "198.51.100.0");
    auto& add = NETCONFIG(CmAddInterfaceCfg2);
    auto& control = NETCONFIG(VkFirewallFullCtrl);
    std::atomic<int> failures{0};
    onThreads(4, [&](int) {
        for (int round = 0; round < 5; ++round) {
            failures += add(json.c_str()) == 0 ? 0 : 1;
            failures += control(emptyRequest) == 0 ? 0 : 1;
        }
    });
    expect(failures == 0, std::to_string(failures) + " of 40 requests of four threads failed");
    filter(platform, removal);
    removeConfiguration(platform);
    expectState(platform, before, "after its removal");
}

}  // namespace

const Promises& networkPromises()
{
    static const Promises promises = {
        {header, "removing a configuration that is not there is no failure", deletingNothingIsNoFailure},
        {header, "an interface that does not exist is refused", missingInterfaceIsRefused},
        {header, "a request takes effect before the call returns", takesEffectAtOnce},
        {header, "removing a configuration restores the state before it", removesExactly},
        {header, "a request replaces the one before it", replacesTheOneBefore},
        {header, "a request that cannot be carried out whole changes nothing", allOrNothing},
        {header, "a default route goes into the interface as two /1 routes", allTrafficInTwoHalves},
        {header, "another process cannot configure the interface meanwhile, nor remove its configuration",
         belongsToItsProcess},
        {header, "the first request for an interface removes what an ended process left", cleanedUpAfterTheEnd},
        {header, "a filter drops what its rule says, and all else passes", filterDropsAndPasses},
        {header, "a filter replaces the one before it", filterIsReplaced},
        {header, "rules are tried in their order", rulesAreTriedInOrder},
        {header, "requests may come from any thread", callsFromAnyThread},
    };
    return promises;
}

}  // namespace conformance
