// SPDX-License-Identifier: Apache-2.0
#include "FakeNetConfig.h"

#include <string>

#include "FakeCalls.h"

namespace fakes {

NetConfigResults& netConfigResults()
{
    static NetConfigResults results;
    return results;
}

}  // namespace fakes

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    fakes::recordCall(std::string("CmAddInterfaceCfg2 ") + json);
    return fakes::netConfigResults().add;
}

extern "C" int CmDelInterfaceCfg(const char* ifName)
{
    fakes::recordCall(std::string("CmDelInterfaceCfg ") + ifName);
    return fakes::netConfigResults().remove;
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    fakes::recordCall(std::string("VkFirewallFullCtrl ") + json);
    return fakes::netConfigResults().firewall;
}
