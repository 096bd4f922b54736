// SPDX-License-Identifier: Apache-2.0
#include "KernelState.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "handles/Json.h"
#include "handles/Stdio.h"

namespace testsupport {

namespace {

std::string textOf(json_object* object, const char* key, const std::string& other)
{
    json_object* value = nullptr;
    return json_object_object_get_ex(object, key, &value) ? json_object_get_string(value) : other;
}

}  // namespace

std::string outputOf(const std::string& command)
{
    const PipePtr pipe(popen(("{ " + command + "\n} 2>&1").c_str(), "re"));
    if (!pipe) throw std::runtime_error("popen");
    std::string output;
    char part[4096];
    while (const std::size_t count = fread(part, 1, sizeof part, pipe.get()))
        output.append(part, count);
    return output;
}

void run(const std::string& command)
{
    const std::string output = outputOf(command + " || echo FAILED");
    if (output.find("FAILED") != std::string::npos) throw std::runtime_error(command + ": " + output);
}

std::string networkSnapshot()
{
    return outputOf(
        "ip -d link; ip -d address; ip -d -4 route show table all; ip -d -6 route show table all; ip -d rule; "
        "nft list ruleset");
}

std::vector<std::string> routesOf(const std::string& ifName)
{
    const JsonPtr list(json_tokener_parse(outputOf("ip -j -4 route show table main dev " + ifName).c_str()));
    std::vector<std::string> routes;
    for (std::size_t index = 0; list && index < json_object_array_length(list.get()); ++index) {
        json_object* route = json_object_array_get_idx(list.get(), index);
        const std::string protocol = textOf(route, "protocol", "boot");
        if (protocol == "kernel") continue;
        routes.push_back(textOf(route, "dst", "?") + " via " + textOf(route, "gateway", "-") + " metric " +
                         textOf(route, "metric", "0") + " proto " + protocol);
    }
    std::sort(routes.begin(), routes.end());
    return routes;
}

void makeInterface(const std::string& name, const std::string& address)
{
    run("ip link add " + name + " type veth peer name peer-" + name + " && ip link set " + name + " addrgenmode none");
    if (address.empty()) return;
    run("ip address add " + address + " dev " + name + " && ip link set " + name + " up");
    // The kernel settles the state of a link a moment later.
    run("for i in $(seq 200); do ip link show " + name + " | grep -q LOWERLAYERDOWN && exit; sleep 0.02; done; exit 1");
}

std::string requestWithRoutes(int count, const std::string& ipv4Keys, int first)
{
    std::string text = R"({"ifName":"vpn0","ipv4":{)" + ipv4Keys + R"("additionalIfRoutes":[)";
    for (int index = first; index < first + count; ++index) {
        text += index == first ? "" : ",";
        text += R"({"ip":")" + std::to_string(20 + index / 65536) + "." + std::to_string(index / 256 % 256) + "." +
                std::to_string(index % 256) + R"(.0","netmask":"255.255.255.0","gateway":"10.8.0.1","metric":5})";
    }
    return text + "]}}";
}

}  // namespace testsupport
