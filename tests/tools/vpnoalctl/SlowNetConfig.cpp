// SPDX-License-Identifier: Apache-2.0
//
// A network-configuration library to put in place of the platform's: writes each call into the file that
// $NETCONFIG_LOG names. Adding an interface takes $NETCONFIG_DELAY milliseconds and returns $NETCONFIG_RESULT. The
// filter is a table in the kernel, empty, unless $NETCONFIG_NO_FILTER is set.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "VkNetConfigLib.h"
#include "handles/Stdio.h"

namespace {

int numberFrom(const char* name)
{
    const char* text = std::getenv(name);
    return text != nullptr ? std::atoi(text) : 0;
}

void record(const char* function, const char* text)
{
    const char* name = std::getenv("NETCONFIG_LOG");
    const FilePtr file(std::fopen(name != nullptr ? name : "/dev/null", "ae"));
    if (file) std::fprintf(file.get(), "%s %s\n", function, text);
}

}  // namespace

extern "C" int CmAddInterfaceCfg2(const char* json)
{
    record("add", json);
    std::this_thread::sleep_for(std::chrono::milliseconds(numberFrom("NETCONFIG_DELAY")));
    return numberFrom("NETCONFIG_RESULT");
}

extern "C" int CmDelInterfaceCfg(const char* ifName)
{
    record("delete", ifName);
    return 0;
}

extern "C" int VkFirewallFullCtrl(const char* json)
{
    const bool isNew = std::strstr(json, "chainNew") != nullptr;
    record(isNew ? "filter" : "no-filter", "");
    if (isNew && std::getenv("NETCONFIG_NO_FILTER") != nullptr) return -1;
    return std::system(isNew ? "nft add table inet vpn.vpnoal" : "nft delete table inet vpn.vpnoal 2>/dev/null");
}
