// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "Broken.h"
#include "VkLogLib.h"
#include "VkNetConfigLib.h"

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    if (broken("anything is taken")) return 0;
    if (broken("crash at null") && json == nullptr) std::abort();
    if (broken("half is kept")) {
        // As if the first of two routes stayed.
        const int result = REAL(CmAddInterfaceCfg2)(json);
        const std::string text = json != nullptr ? json : "";
        const std::size_t second = text.rfind(",{\"ip\"");
        if (result == 0 || second == std::string::npos) return result;
        REAL(CmAddInterfaceCfg2)((text.substr(0, second) + "]}}").c_str());
        return result;
    }
    if (broken("two lines")) VkLogPrint(nullptr, 3, "CmAddInterfaceCfg2 is called");
    if (broken("silence")) return json == nullptr || std::strstr(json, "192.0.2") == nullptr ? -1 : 0;
    if (broken("a descriptor a request")) leakDescriptor();
    if (broken("late")) {
        const std::string copy = json;
        std::thread([copy] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            real<decltype(CmAddInterfaceCfg2)>("CmAddInterfaceCfg2")(copy.c_str());
        }).detach();
        return 0;
    }
    return REAL(CmAddInterfaceCfg2)(json);
}

extern "C" int CmDelInterfaceCfg(const char* ifName)
{
    if (broken("nothing is removed")) return 0;
    if (broken("nothing there is a failure")) return -1;
    return REAL(CmDelInterfaceCfg)(ifName);
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    if (broken("any filter is taken")) return 0;
    if (broken("filters stay") && json != nullptr && std::strstr(json, "chainDelete") != nullptr) return 0;
    if (broken("drops everything") && json != nullptr && std::strstr(json, "DROP") != nullptr) {
        return REAL(VkFirewallFullCtrl)(
            R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP"}]})");
    }
    return REAL(VkFirewallFullCtrl)(json);
}
