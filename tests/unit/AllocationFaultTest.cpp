// SPDX-License-Identifier: Apache-2.0
//
// Every operation while each of its allocations fails, once and from then on: nothing is thrown, the result is one that
// the operation may have, what reaches the platform is whole, and the next undisturbed call is right.
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <set>
#include <string>

#include "AgentObjects.h"
#include "AllocationFaults.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeCalls.h"
#include "FakeNetConfig.h"
#include "FakeVkLog.h"
#include "ReaderTest.h"
#include "Shell.h"
#include "SocketInterface.h"
#include "StorageInterface.h"
#include "SystemInterface.h"
#include "handles/UniqueFd.h"
#include "kest/Plugin.h"

using faults::AllocationFault;
using faults::NoFault;

// The fakes allocate for what they record.
extern "C" {
int __real_CmAddInterfaceCfg2(const char* json);
int __wrap_CmAddInterfaceCfg2(const char* json);
int __real_CmDelInterfaceCfg(const char* name);
int __wrap_CmDelInterfaceCfg(const char* name);
int __real_VkFirewallFullCtrl(const char* json);
int __wrap_VkFirewallFullCtrl(const char* json);
void __wrap_VkLogPrint(VkLogContext* context, int level, const char* format, ...);
}

int __wrap_CmAddInterfaceCfg2(const char* json)
{
    const NoFault noFault;
    return __real_CmAddInterfaceCfg2(json);
}

int __wrap_CmDelInterfaceCfg(const char* name)
{
    const NoFault noFault;
    return __real_CmDelInterfaceCfg(name);
}

int __wrap_VkFirewallFullCtrl(const char* json)
{
    const NoFault noFault;
    return __real_VkFirewallFullCtrl(json);
}

namespace {

// The lines that were logged as errors. There may be one before the objects of this file are constructed.
std::set<std::string>& errors()
{
    static auto& lines = *new std::set<std::string>;
    return lines;
}

}  // namespace

void __wrap_VkLogPrint(VkLogContext*, int level, const char* format, ...)
{
    if (level != 3) return;
    const NoFault noFault;
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    errors().insert(line);
}

namespace {

using namespace testsupport;

class RouteToAdd : public ListedRoute {
public:
    RouteToAdd(const char* destination, const char* netmask, const char* gateway)
    {
        SetDestination(strdup(destination));
        SetNetmask(strdup(netmask));
        SetGateway(strdup(gateway));
        SetInterface(strdup("eth0"));
    }
};

struct Operation {
    const char* name;
    std::function<PluginResult()> run;
    std::set<PluginResult> allowed;
};

class AllocationFaultTest : public KernelReaderTest {
protected:
    AllocationFaultTest()
    {
        add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
        errors().clear();
    }

    /// Runs `operation` with each allocation failing; `check` judges each result with the fault taken away.
    static int failEach(const std::function<PluginResult()>& operation, const std::function<void(PluginResult)>& check,
                        int step = 1)
    {
        const int struck = failEach(operation, check, step, false) + failEach(operation, check, step, true);
        // What is not logged changes nothing.
        const std::set<std::string> logged = errors();
        const fakes::ClosedLog closed;
        failEach(operation, check, step, false);
        EXPECT_EQ(logged, errors());
        return struck;
    }

    static int failEach(const std::function<PluginResult()>& operation, const std::function<void(PluginResult)>& check,
                        int step, bool forEver)
    {
        int struck = 0;
        for (int nth = 1; nth < 5000; nth += nth < 40 ? 1 : step) {
            PluginResult result = 77;
            bool hasStruck = false;
            {
                const AllocationFault fault(nth, forEver);
                try {
                    result = operation();
                } catch (...) {
                    const NoFault noFault;
                    ADD_FAILURE() << "allocation " << nth << " that fails throws";
                }
                hasStruck = fault.hasStruck();
            }
            check(result);
            if (!hasStruck) break;
            ++struck;
        }
        return struck;
    }

    /// Each of the first allocations fails in turn, and each `step`-th of the rest.
    void survives(const Operation& operation, int leastStruck = 1, int step = 1)
    {
        const PluginResult undisturbed = operation.run();
        EXPECT_EQ(PLUGIN_SUCCESS, undisturbed) << operation.name;
        const int struck = failEach(
            operation.run,
            [&](PluginResult result) {
                EXPECT_EQ(1u, operation.allowed.count(result)) << operation.name << " gives " << result;
                EXPECT_EQ(undisturbed, operation.run()) << operation.name;
            },
            step);
        EXPECT_GE(struck, leastStruck) << operation.name;
    }
};

const std::set<PluginResult> either{PLUGIN_SUCCESS, PLUGIN_FAILURE};

// ---- configuration ------------------------------------------------------------------------------------------------

class ConfigurationFaultTest : public AllocationFaultTest {
protected:
    PluginResult configure()
    {
        KEST_SystemPluginRoute* routes[] = {&mEverything};
        const char* servers[] = {"10.8.0.53", "10.8.0.54", nullptr};
        const char* domains[] = {"a.example", "b.example", nullptr};
        const PluginResult setters[] = {
            mSystem.SetDNSServers(servers),
            mSystem.SetDNSDomain("corp.example"),
            mSystem.SetSplitDNSDomains(domains),
            mSystem.AddRoute(1, routes),
            mSystem.SetPacketFilterRule("10.1.2.3", "255.255.255.255", 1, "10.0.0.0", "255.0.0.0", 2,
                                        FILTER_PROTOCOL_TCP, FILTER_DIRECTION_IN, "eth0", FILTER_ACTION_ACCEPT),
            mSystem.SetPacketFilterRule("192.168.100.100", "255.255.255.255", 0, nullptr, nullptr, 0,
                                        FILTER_PROTOCOL_ANY, FILTER_DIRECTION_BOTH, nullptr, FILTER_ACTION_DROP),
        };
        for (const PluginResult result : setters) {
            if (result != PLUGIN_SUCCESS) return 78;
        }
        return mSystem.ApplyConfiguration();
    }

    static std::vector<std::string> takeCalls()
    {
        auto calls = fakes::calls();
        fakes::clearCalls();
        return calls;
    }

    RouteToAdd mEverything{"0.0.0.0", "0.0.0.0", "10.8.0.1"};
    SystemInterface mSystem;
};

TEST_F(ConfigurationFaultTest, ConfigurationIsAppliedWholeOrNotAtAll)
{
    takeCalls();
    ASSERT_EQ(PLUGIN_SUCCESS, configure());
    const auto whole = takeCalls();
    ASSERT_EQ(3u, whole.size());  // filter deleted, filter made, interface
    int failures = 0;
    const int struck = failEach([this] { return configure(); },
                                [&](PluginResult result) {
                                    const auto calls = takeCalls();
                                    EXPECT_EQ(1u, either.count(result)) << result;
                                    if (result == PLUGIN_SUCCESS) {
                                        EXPECT_EQ(whole, calls);
                                    } else {
                                        ++failures;
                                        const std::vector<std::string> start(whole.begin(), whole.begin() + 2);
                                        EXPECT_TRUE(calls.empty() || calls == start) << calls.back();
                                    }
                                    mSystem.RestoreSystemConfiguration();
                                    mSystem.ApplyConfiguration();  // discards what was collected
                                    takeCalls();
                                    EXPECT_EQ(PLUGIN_SUCCESS, configure());
                                    EXPECT_EQ(whole, takeCalls());
                                });
    EXPECT_GT(struck, 100);
    EXPECT_GT(failures, 50);
    EXPECT_THAT(errors(), testing::ElementsAre(
                              "SystemInterface::AddRoute: Out of memory, the pending configuration is incomplete",
                              "SystemInterface::ApplyConfiguration: Failed to Add Interface",
                              "SystemInterface::ApplyConfiguration: Out of memory, the configuration is incomplete and "
                              "not applied",
                              "SystemInterface::SetDNSDomain: Out of memory, the pending configuration is incomplete",
                              "SystemInterface::SetDNSServers: Out of memory, the pending configuration is incomplete",
                              "SystemInterface::SetPacketFilterRule: Out of memory, the pending configuration is "
                              "incomplete",
                              "SystemInterface::SetSplitDNSDomains: Out of memory, the pending configuration is "
                              "incomplete",
                              "SystemInterface::addAddressToJson: Error Allocation DNS Address String",
                              "SystemInterface::resetJsonFirewallObject: Out of memory, the pending configuration is "
                              "incomplete",
                              "SystemInterface::resetJsonObjects: Out of memory, the pending configuration is "
                              "incomplete",
                              "saveDataForRecovery: Couldn't create json object",
                              "saveDataForRecovery: Failed to save the data to the recovery file"));
}

TEST_F(ConfigurationFaultTest, IncompleteSettingsAreDiscardedByARestoreOnly)
{
    {
        const AllocationFault fault(1, false);
        EXPECT_EQ(PLUGIN_SUCCESS, mSystem.SetDNSDomain("corp.example"));
    }
    fakes::clearCalls();
    EXPECT_EQ(PLUGIN_FAILURE, mSystem.ApplyConfiguration());
    EXPECT_EQ(PLUGIN_FAILURE, mSystem.ApplyConfiguration());
    EXPECT_THAT(fakes::calls(), testing::IsEmpty());
    mSystem.RestoreSystemConfiguration();
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.ApplyConfiguration());
}

TEST_F(ConfigurationFaultTest, RuleForAFilterThatCouldNotBeMadeIsLogged)
{
    const AllocationFault fault(1, true);
    mSystem.SetDNSDomain("corp.example");
    mSystem.RestoreSystemConfiguration();  // begins anew after what was incomplete, and cannot
    errors().clear();
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.SetPacketFilterRule(nullptr, nullptr, 0, nullptr, nullptr, 0, FILTER_PROTOCOL_ANY,
                                                          FILTER_DIRECTION_BOTH, nullptr, FILTER_ACTION_DROP));
    const NoFault noFault;
    EXPECT_THAT(errors(),
                testing::ElementsAre("SystemInterface::SetPacketFilterRule: Firewall JSON Object not defined"));
    EXPECT_EQ(PLUGIN_FAILURE, mSystem.ApplyConfiguration());
}

TEST_F(ConfigurationFaultTest, RestoreReachesThePlatformWithoutMemory)
{
    takeCalls();
    const AllocationFault fault(1, true);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.RestoreSystemConfiguration());
    const NoFault noFault;
    EXPECT_THAT(takeCalls(),
                testing::ElementsAre("CmDelInterfaceCfg norvatun0",
                                     "VkFirewallFullCtrl { \"label\": \"vpn.vpnoal\", \"chainDelete\": \"NORVA\" }"));
}

// ---- routes and interfaces ----------------------------------------------------------------------------------------

TEST_F(AllocationFaultTest, RoutesAndInterfaces)
{
    SystemInterface system;
    SocketInterface outer;
    RouteArray routes(30);
    InterfaceArray interfaces(30);
    survives({"EnumerateRoutes",
              [&] {
                  unsigned count = 30;
                  return system.EnumerateRoutes(count, routes.pointers());
              },
              either});
    survives({"EnumerateNetworkInterfaces",
              [&] {
                  unsigned count = 30;
                  return system.EnumerateNetworkInterfaces(count, interfaces.pointers());
              },
              {PLUGIN_SUCCESS}},
             0);
    RouteToAdd gone("10.77.0.0", "255.255.0.0", "10.1.0.99");
    KEST_SystemPluginRoute* pointer = &gone;
    survives({"DeleteRoute", [&] { return system.DeleteRoute(1, &pointer); }, {PLUGIN_SUCCESS}});
    EXPECT_THAT(errors(), testing::IsSupersetOf({"SystemInterface::DeleteRoute:Failed to allocate memory",
                                                 "SystemInterface::DeleteRoute:Failed to run command: /sbin/ip route "
                                                 "del 10.77.0.0/16 via 10.1.0.99"}));
    survives({"GetPreferredInterface",
              [&] {
                  char name[16];
                  unsigned size = sizeof name;
                  return outer.GetPreferredInterface(size, name, nullptr);
              },
              {PLUGIN_SUCCESS}},
             0);
    survives({"BindToInterface",
              [&] {
                  const UniqueFd bound(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
                  return outer.BindToInterface(nullptr, static_cast<unsigned>(bound.get()));
              },
              either},
             0);
}

// ---- storage ------------------------------------------------------------------------------------------------------

TEST_F(AllocationFaultTest, Storage)
{
    shell("mkdir -p /tmp/vpn/main");
    StorageInterface storage;
    const unsigned char data[] = {'a', 'b', 'c'};
    unsigned char buffer[16];
    const char* name = "a name that is too long for a text without memory of its own";
    survives({"SaveFile", [&] { return storage.SaveFile(LOCATION_MAIN, name, data, sizeof data); }, either});
    survives({"LoadFile",
              [&] {
                  unsigned size = sizeof buffer;
                  return storage.LoadFile(LOCATION_MAIN, name, buffer, size);
              },
              either});
    survives({"EnumerateFiles",
              [&] {
                  unsigned count = 1;
                  char entry[256];
                  char* names[] = {entry};
                  return storage.EnumerateFiles(LOCATION_MAIN, count, names);
              },
              either});
    survives({"SimpleStat",
              [&] {
                  KEST_FileInformation information{};
                  return storage.SimpleStat(LOCATION_MAIN, name, information);
              },
              either});
    survives({"SimpleMapFile",
              [&] {
                  void* address = nullptr;
                  unsigned size = 0;
                  const PluginResult result = storage.SimpleMapFile(LOCATION_MAIN, name, address, size);
                  return result == PLUGIN_SUCCESS ? storage.SimpleUnmapFile(address) : result;
              },
              either},
             2);
    survives({"DeleteFile",
              [&] {
                  const PluginResult result = storage.DeleteFile(LOCATION_MAIN, name);
                  const NoFault noFault;
                  storage.SaveFile(LOCATION_MAIN, name, data, sizeof data);
                  return result;
              },
              either});
    EXPECT_THAT(errors(),
                testing::IsSupersetOf({"SaveFile: error: out of memory", "LoadFile: error: out of memory",
                                       "SimpleStat: error: out of memory", "SimpleMapFile: error: out of memory",
                                       "DeleteFile: error: out of memory"}));
}

// ---- certificates -------------------------------------------------------------------------------------------------

TEST_F(AllocationFaultTest, ClientCertificates)
{
    shell("mkdir -p /var/ssl/certs /var/ssl/private");
    shell(
        "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=user -days 2 -keyout /var/ssl/private/rsauser.pem "
        "-out /var/ssl/certs/user.pem 2>/dev/null");
    CertificateInterface certificates;
    ClientCertHandle* handles[4] = {};
    const auto list = [&] {
        unsigned count = 4;
        const PluginResult result = certificates.EnumerateClientCerts(count, handles);
        const NoFault noFault;
        for (unsigned i = 0; i < count && result == PLUGIN_SUCCESS; ++i)
            certificates.DisposeClientCertHandle(handles[i]);
        return result;
    };
    survives({"EnumerateClientCerts", list, either}, 10, 17);

    unsigned count = 4;
    ASSERT_EQ(PLUGIN_SUCCESS, certificates.EnumerateClientCerts(count, handles));
    ASSERT_EQ(1u, count);
    survives({"SignSSL",
              [&] {
                  const unsigned char hash[36] = {};
                  unsigned char signature[256];
                  unsigned char* place = signature;
                  unsigned length = sizeof signature;
                  return handles[0]->SignSSL(hash, sizeof hash, place, length, "");
              },
              either},
             10, 17);
    unsigned length = 0;
    unsigned char* der = nullptr;
    ASSERT_EQ(PLUGIN_SUCCESS, handles[0]->GetCertDer(length, der));
    survives({"AddVerificationCert",
              [&] {
                  const PluginResult result = certificates.AddVerificationCert(der, length);
                  certificates.ClearVerificationCertificates();
                  return result;
              },
              either},
             5);
    certificates.DisposeClientCertHandle(handles[0]);
}

// ---- factory ------------------------------------------------------------------------------------------------------

TEST_F(AllocationFaultTest, ObjectThatCannotBeAllocatedIsNotCreated)
{
    for (const char* identifier : {KEST_CERTIFICATE_INTERFACE, KEST_STORAGE_INTERFACE}) {
        const AllocationFault fault(1, false);
        Plugin* plugin = CreatePlugin(identifier);
        const NoFault noFault;
        EXPECT_EQ(nullptr, plugin) << identifier;
        DisposePlugin(plugin);
    }
}

}  // namespace
