// SPDX-License-Identifier: Apache-2.0
//
// Statuses of the connection manager, of any shape. The first byte chooses the interface that the socket is bound to.
#include <cstdlib>
#include <string>

#include "FakeQuorService.h"
#include "FuzzSetup.h"
#include "NetworkStatus.h"
#include "ObjectRegistry.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "kest/SystemPluginCB.h"

namespace {

class Counter : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override { std::abort(); }
    void OnPowerResume() override { std::abort(); }
    void OnConnectionChange(std::uint32_t reserved) override
    {
        if (reserved != 0) std::abort();
        ++told;
    }
    void OnConfigurationChange() override {}

    int told = 0;
};

void deliver(const std::string& payload, const char* boundName)
{
    static auto& agent = *new Counter;
    static auto& systemIf = *new SystemInterface;
    static auto& socketIf = *new SocketInterface;
    systemIf.SetSystemPluginCB(&agent);
    setSystemIfObject(&systemIf);
    setSocketIfObject(&socketIf);
    socketIf.getBoundInterface() = boundName;
    agent.told = 0;
    QSMessage message{payload.c_str(), 1};
    if (!handleConManNetworkStatus(nullptr, &message, nullptr)) std::abort();
    if (agent.told > 1) std::abort();
}

// Deeper than any input that the fuzzer makes up.
bool deliverDeepOnes()
{
    constexpr std::size_t depth = 100000;
    std::string objects;
    for (std::size_t i = 0; i < depth; ++i)
        objects += "{\"wifi\":";
    deliver(objects, "eth0");
    deliver(std::string(depth, '[') + std::string(depth, ']'), "eth0");
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static const char* const names[] = {"", "eth0", "ppp0", "usb0"};
    fuzz::setUpOnce();
    static const bool isDeepDone = deliverDeepOnes();
    if (size == 0 || !isDeepDone) return 0;
    deliver(std::string(reinterpret_cast<const char*>(data + 1), size - 1), names[data[0] % 4]);
    return 0;
}
