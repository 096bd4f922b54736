// SPDX-License-Identifier: Apache-2.0
//
// The order of virtual operations, which agents built elsewhere rely on: each slot is compared with a table, and some
// are called by number, as such an agent does. Written for the Itanium C++ ABI: a destructor takes two slots, and a
// pointer to a virtual member holds the offset of its slot.
#include <gmock/gmock.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "CertificateInterface.h"
#include "FakeCalls.h"
#include "FakeVkLog.h"
#include "SocketInterface.h"
#include "StorageInterface.h"
#include "SystemInterface.h"

namespace {

template <typename Member>
std::ptrdiff_t slotOf(Member member)
{
    std::ptrdiff_t parts[2];
    static_assert(sizeof member == sizeof parts, "not the Itanium C++ ABI");
    std::memcpy(parts, &member, sizeof parts);
#if defined(__aarch64__) || defined(__arm__)
    const bool isVirtual = (parts[1] & 1) != 0;
    const std::ptrdiff_t offset = parts[0];
#else
    const bool isVirtual = (parts[0] & 1) != 0;
    const std::ptrdiff_t offset = parts[0] - 1;
#endif
    return isVirtual ? offset / static_cast<std::ptrdiff_t>(sizeof(void*)) : -1;
}

/// The function behind slot `number` of an object's table.
template <typename Function>
Function* slotFunction(void* object, std::size_t number)
{
    void** table = nullptr;
    std::memcpy(&table, object, sizeof table);
    Function* function = nullptr;
    std::memcpy(&function, table + number, sizeof function);
    return function;
}

// An operation's order, counted from 1 with one destructor before it, is its slot, counted from 0 with two.

TEST(SlotOrderTest, Plugin)
{
    EXPECT_EQ(0, slotOf(&Plugin::SupportsInterface));
}

TEST(SlotOrderTest, SystemPlugin)
{
    EXPECT_EQ(0, slotOf(&KEST_SystemPlugin::SupportsInterface));
    EXPECT_EQ(3, slotOf(&KEST_SystemPlugin::GetLastErrorString));
    EXPECT_EQ(4, slotOf(&KEST_SystemPlugin::SetDNSDomain));
    EXPECT_EQ(5, slotOf(&KEST_SystemPlugin::SetDNSServers));
    EXPECT_EQ(6, slotOf(&KEST_SystemPlugin::SetSplitDNSDomains));
    EXPECT_EQ(7, slotOf(&KEST_SystemPlugin::SetPacketFilterRule));
    EXPECT_EQ(8, slotOf(&KEST_SystemPlugin::SetSystemPluginCB));
    EXPECT_EQ(9, slotOf(&KEST_SystemPlugin::ApplyConfiguration));
    EXPECT_EQ(10, slotOf(&KEST_SystemPlugin::RestoreSystemConfiguration));
    EXPECT_EQ(11, slotOf(&KEST_SystemPlugin::AddRoute));
    EXPECT_EQ(12, slotOf(&KEST_SystemPlugin::DeleteRoute));
    EXPECT_EQ(13, slotOf(&KEST_SystemPlugin::EnumerateRoutes));
    EXPECT_EQ(14, slotOf(&KEST_SystemPlugin::EnumerateNetworkInterfaces));
    EXPECT_EQ(15, slotOf(&KEST_SystemPlugin::SetTunnelParams));
    EXPECT_EQ(16, slotOf(&KEST_SystemPlugin::SetProxy));
    EXPECT_EQ(17, slotOf(&KEST_SystemPlugin::SetProxyExceptionList));
    EXPECT_EQ(18, slotOf(&KEST_SystemPlugin::ClearProxySettings));
    EXPECT_EQ(19, slotOf(&SystemInterface::notifyConnectionChange));
    EXPECT_EQ(20, slotOf(&SystemInterface::notifyPowerResume));
    EXPECT_EQ(21, slotOf(&SystemInterface::notifyPowerSuspended));
}

TEST(SlotOrderTest, CertPlugin)
{
    EXPECT_EQ(0, slotOf(&KEST_CertPlugin::SupportsInterface));
    EXPECT_EQ(3, slotOf(&KEST_CertPlugin::GetLastErrorString));
    EXPECT_EQ(4, slotOf(&KEST_CertPlugin::VerifyServerCertificate));
    EXPECT_EQ(5, slotOf(&KEST_CertPlugin::AddVerificationCert));
    EXPECT_EQ(6, slotOf(&KEST_CertPlugin::EnumerateClientCerts));
    EXPECT_EQ(7, slotOf(&KEST_CertPlugin::DisposeClientCertHandle));
    EXPECT_EQ(8, slotOf(&KEST_CertPlugin::ImportPKCS12));
    EXPECT_EQ(9, slotOf(&KEST_CertPlugin::ClearVerificationCertificates));
}

TEST(SlotOrderTest, SocketPlugin)
{
    EXPECT_EQ(0, slotOf(&KEST_SocketPlugin::SupportsInterface));
    EXPECT_EQ(3, slotOf(&KEST_SocketPlugin::GetPreferredInterface));
    EXPECT_EQ(4, slotOf(&KEST_SocketPlugin::BindToInterface));
    EXPECT_EQ(5, slotOf(&KEST_SocketPlugin::GetLastErrorString));
    EXPECT_EQ(6, slotOf(&SocketInterface::getBoundInterface));
}

TEST(SlotOrderTest, StoragePlugin)
{
    EXPECT_EQ(0, slotOf(&KEST_StoragePlugin::SupportsInterface));
    EXPECT_EQ(3, slotOf(&KEST_StoragePlugin::SaveFile));
    EXPECT_EQ(4, slotOf(&KEST_StoragePlugin::LoadFile));
    EXPECT_EQ(5, slotOf(&KEST_StoragePlugin::EnumerateFiles));
    EXPECT_EQ(6, slotOf(&KEST_StoragePlugin::DeleteFile));
    EXPECT_EQ(7, slotOf(&KEST_StoragePlugin::GetLastErrorString));
    EXPECT_EQ(8, slotOf(&KEST_StoragePlugin::SimpleMapFile));
    EXPECT_EQ(9, slotOf(&KEST_StoragePlugin::SimpleUnmapFile));
    EXPECT_EQ(10, slotOf(&KEST_StoragePlugin::SimpleStat));
}

TEST(SlotOrderTest, ClientCertHandleHasItsDestructorLast)
{
    EXPECT_EQ(0, slotOf(&ClientCertHandle::GetCertDer));
    EXPECT_EQ(1, slotOf(&ClientCertHandle::SignSSL));

    struct Handle : ClientCertHandle {
        explicit Handle(bool& gone) : mGone(gone) {}
        ~Handle() override { mGone = true; }
        PluginResult GetCertDer(unsigned int&, unsigned char*&) override { return 0; }
        PluginResult SignSSL(const unsigned char*, unsigned int, unsigned char*&, unsigned int&, const char*) override
        {
            return 0;
        }
        bool& mGone;
    };
    bool gone = false;
    auto* handle = new Handle(gone);
    slotFunction<void(void*)>(handle, 3)(handle);  // 2 destroys only, 3 releases as well
    EXPECT_TRUE(gone);
}

TEST(SlotOrderTest, SystemPluginCB)
{
    EXPECT_EQ(0, slotOf(&KEST_SystemPluginCB::OnPowerSuspended));
    EXPECT_EQ(1, slotOf(&KEST_SystemPluginCB::OnPowerResume));
    EXPECT_EQ(2, slotOf(&KEST_SystemPluginCB::OnConnectionChange));
    EXPECT_EQ(3, slotOf(&KEST_SystemPluginCB::OnConfigurationChange));
}

TEST(SlotOrderTest, SystemPluginRoute)
{
    EXPECT_EQ(0, slotOf(&KEST_SystemPluginRoute::SetDestination));
    EXPECT_EQ(1, slotOf(&KEST_SystemPluginRoute::GetDestination));
    EXPECT_EQ(2, slotOf(&KEST_SystemPluginRoute::SetGateway));
    EXPECT_EQ(3, slotOf(&KEST_SystemPluginRoute::GetGateway));
    EXPECT_EQ(4, slotOf(&KEST_SystemPluginRoute::SetNetmask));
    EXPECT_EQ(5, slotOf(&KEST_SystemPluginRoute::GetNetmask));
    EXPECT_EQ(6, slotOf(&KEST_SystemPluginRoute::SetInterface));
    EXPECT_EQ(7, slotOf(&KEST_SystemPluginRoute::GetInterface));
    EXPECT_EQ(8, slotOf(&KEST_SystemPluginRoute::SetReservedValue));
    EXPECT_EQ(9, slotOf(&KEST_SystemPluginRoute::GetReservedValue));
    EXPECT_EQ(10, slotOf(&KEST_SystemPluginRoute::SetMetric));
    EXPECT_EQ(11, slotOf(&KEST_SystemPluginRoute::GetMetric));
}

TEST(SlotOrderTest, NetworkInterface)
{
    EXPECT_EQ(0, slotOf(&KEST_NetworkInterface::SetAddress));
    EXPECT_EQ(1, slotOf(&KEST_NetworkInterface::SetNetmask));
    EXPECT_EQ(2, slotOf(&KEST_NetworkInterface::SetGateway));
    EXPECT_EQ(3, slotOf(&KEST_NetworkInterface::SetReservedText));
    EXPECT_EQ(4, slotOf(&KEST_NetworkInterface::SetName));
    EXPECT_EQ(5, slotOf(&KEST_NetworkInterface::SetReservedValue));
    EXPECT_EQ(6, slotOf(&KEST_NetworkInterface::SetReservedPair));
}

TEST(SlotOrderTest, InterfacesAreOneTablePointerWithoutData)
{
    EXPECT_EQ(sizeof(void*), sizeof(KEST_SystemPlugin));
    EXPECT_EQ(sizeof(void*), sizeof(KEST_CertPlugin));
    EXPECT_EQ(sizeof(void*), sizeof(KEST_SocketPlugin));
    EXPECT_EQ(sizeof(void*), sizeof(KEST_StoragePlugin));
    EXPECT_EQ(sizeof(void*), sizeof(ClientCertHandle));
    EXPECT_TRUE(std::has_virtual_destructor<Plugin>::value);
    // The agent's Plugin pointer and the interface pointer are the same address.
    SystemInterface object;
    EXPECT_EQ(static_cast<void*>(static_cast<Plugin*>(&object)), static_cast<void*>(&object));
}

TEST(SlotOrderTest, ObjectFromTheFactoryWorksThroughSlotNumbers)
{
    Plugin* plugin = CreatePlugin(KEST_SYSTEM_INTERFACE);
    fakes::clearCalls();
    fakes::clearLog();
    EXPECT_TRUE(slotFunction<bool(void*, const char*, unsigned)>(plugin, 0)(plugin, KEST_SYSTEM_INTERFACE, 7));
    EXPECT_EQ(-3, slotFunction<PluginResult(void*, char*, unsigned)>(plugin, 3)(plugin, nullptr, 0));
    EXPECT_EQ(0, slotFunction<PluginResult(void*, const char*)>(plugin, 4)(plugin, "corp.example"));
    EXPECT_EQ(-1, slotFunction<PluginResult(void*, const char**)>(plugin, 6)(plugin, nullptr));
    EXPECT_EQ(0, slotFunction<PluginResult(void*)>(plugin, 9)(plugin));
    EXPECT_THAT(fakes::calls().back(), testing::StartsWith("CmAddInterfaceCfg2 "));
    EXPECT_EQ(0, slotFunction<PluginResult(void*)>(plugin, 18)(plugin));
    EXPECT_EQ("SystemInterface::ClearProxySettings: ClearProxySettings called",
              fakes::logLinesOfThisThread().back().text);
    fakes::clearCalls();
    EXPECT_EQ(0, slotFunction<PluginResult(void*)>(plugin, 10)(plugin));
    EXPECT_THAT(fakes::calls(), testing::Contains("CmDelInterfaceCfg norvatun0"));
    DisposePlugin(plugin);
}

TEST(SlotOrderTest, DestructorSlotsOfTheSystemInterfaceRestore)
{
    auto* released = new SystemInterface;
    fakes::clearCalls();
    slotFunction<void(void*)>(released, 2)(released);  // destroys and releases
    EXPECT_THAT(fakes::calls(), testing::Contains("CmDelInterfaceCfg norvatun0"));

    alignas(SystemInterface) std::byte place[sizeof(SystemInterface)];
    auto* kept = new (place) SystemInterface;
    fakes::clearCalls();
    slotFunction<void(void*)>(kept, 1)(kept);  // destroys only
    EXPECT_THAT(fakes::calls(), testing::Contains("CmDelInterfaceCfg norvatun0"));
}

TEST(SlotOrderTest, OperationsInAnotherOrderAreNotInterchangeable)
{
    struct Swapped {
        virtual PluginResult RestoreSystemConfiguration() { return 1; }
        virtual PluginResult ApplyConfiguration() { return 2; }
        virtual ~Swapped() = default;
    } swapped;
    EXPECT_GT(slotOf(&Swapped::ApplyConfiguration), slotOf(&Swapped::RestoreSystemConfiguration));
    EXPECT_LT(slotOf(&KEST_SystemPlugin::ApplyConfiguration), slotOf(&KEST_SystemPlugin::RestoreSystemConfiguration));
    // Whoever calls the first slot for "apply" restores.
    EXPECT_EQ(1, slotFunction<PluginResult(void*)>(&swapped, 0)(&swapped));
}

}  // namespace
