// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the system interface share: an object with recording fakes around it, routes and a callback record
// as an agent has them.
#ifndef WFOAL_SYSTEMINTERFACETEST_H
#define WFOAL_SYSTEMINTERFACETEST_H

#include <gmock/gmock.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "AddressForm.h"
#include "FakeCalls.h"
#include "FakeNetConfig.h"
#include "FakeVkLog.h"
#include "RecordingCallback.h"
#include "SystemInterface.h"

constexpr char recoveryFile[] = "/tmp/vpnRecover.data";

/// Enters what it is told in fakes::calls(), so that a test sees it among the calls to the platform.
class CallListCallback : public RecordingCallback {
protected:
    void note(const std::string& event) override { fakes::recordCall(event); }
};

/// A route to be added; a null text is a getter that has nothing to say.
class AgentRoute : public KEST_SystemPluginRoute {
public:
    AgentRoute(const char* destination, const char* netmask, const char* gateway, unsigned int metric,
               const char* interface = "eth0")
        : mDestination(destination), mNetmask(netmask), mGateway(gateway), mInterface(interface), mMetric(metric)
    {
    }
    void SetDestination(char*) override { ADD_FAILURE(); }
    const char* GetDestination() override { return mDestination; }
    void SetGateway(char*) override { ADD_FAILURE(); }
    const char* GetGateway() override { return mGateway; }
    void SetNetmask(char*) override { ADD_FAILURE(); }
    const char* GetNetmask() override { return mNetmask; }
    void SetInterface(char*) override { ADD_FAILURE(); }
    const char* GetInterface() override { return mInterface; }
    void SetReservedValue(std::int32_t) override { ADD_FAILURE(); }
    std::int32_t GetReservedValue() override { return 0; }
    void SetMetric(unsigned int) override { ADD_FAILURE(); }
    unsigned int GetMetric() override { return mMetric; }

private:
    const char* mDestination;
    const char* mNetmask;
    const char* mGateway;
    const char* mInterface;
    unsigned int mMetric;
};

class SystemInterfaceTest : public testing::Test {
protected:
    SystemInterfaceTest()
    {
        fakes::netConfigResults() = {};
        fakes::logContext().level = 7;
        sDoesHaveADefaultGateway = false;
        unlink(recoveryFile);
        forget();
    }
    ~SystemInterfaceTest() override { fakes::recordLogInCalls(false); }

    /// Forgets what was recorded so far.
    static void forget()
    {
        fakes::clearLog();
        fakes::clearCalls();
    }

    /// The texts that `function` was called with.
    static std::vector<std::string> textsOf(const std::string& function)
    {
        std::vector<std::string> texts;
        for (const std::string& call : fakes::calls()) {
            if (call.rfind(function + " ", 0) == 0) texts.push_back(call.substr(function.size() + 1));
        }
        return texts;
    }

    /// The interface request that an apply sends now.
    std::string appliedRequest()
    {
        forget();
        mSystem->ApplyConfiguration();
        const auto requests = textsOf("CmAddInterfaceCfg2");
        return requests.size() == 1 ? requests[0] : std::to_string(requests.size()) + " requests";
    }

    /// The packet-filter request that an apply sends now, after the one that deletes.
    std::string appliedFilter()
    {
        forget();
        mSystem->ApplyConfiguration();
        const auto requests = textsOf("VkFirewallFullCtrl");
        return requests.size() == 2 ? requests[1] : std::to_string(requests.size()) + " requests";
    }

    /// An interface request with `ipv4` as the content of "ipv4", addresses as in AddressForm.h, and `between` after
    /// it.
    static std::string request(const std::string& ipv4, const std::string& between = "")
    {
        return "{ \"ipv4\": {" + testsupport::onThisMachine(ipv4) + " }," + between +
               " \"ifName\": \"norvatun0\", \"ifPriority\": 5, \"networkTechnology\": \"vpn\", \"networkScope\": "
               "\"wan\","
               " \"networkUsage\": [ \"internet\" ] }";
    }

    CallListCallback mCallback;  // outlives the object, which calls it while it is destroyed
    std::unique_ptr<SystemInterface> mSystem = std::make_unique<SystemInterface>();
};

inline const std::string deleteRequest = R"({ "label": "vpn.vpnoal", "chainDelete": "NORVA" })";
inline const std::string emptyFilterRequest = R"({ "label": "vpn.vpnoal", "chainNew": "NORVA", "rules": [ ] })";

#endif
