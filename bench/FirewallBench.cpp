// SPDX-License-Identifier: Apache-2.0
//
// Replacing a packet filter of 10,000 rules, to an nft process that loads the same rules.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Comparison.h"
#include "NftText.h"
#include "VkNetConfigLib.h"
#include "firewall/FirewallRequest.h"
#include "process/Subprocess.h"

namespace {

constexpr int ruleCount = 10000;
constexpr char rulesFile[] = "/tmp/rules.nft";

void require(bool condition, const char* what)
{
    if (!condition) throw std::runtime_error(what);
}

// Spawned, not forked: copying this process's memory map would be no cost of nft's.
void runNft(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{"nft"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    require(wfoal::runSubprocess(command, {}, std::chrono::minutes(1)).succeeded(), "nft");
}

std::string address(int number)
{
    return "10." + std::to_string(number >> 16 & 255) + "." + std::to_string(number >> 8 & 255) + "." +
           std::to_string(number & 255);
}

// The mix of a company's rules: networks and hosts, services by port, some protocols, some interfaces.
std::string rule(int number)
{
    std::string text = R"({"operation":"append")";
    if (number % 4 != 0) text += R"(,"source":")" + address(number) + R"(\/255.255.255.0")";
    if (number % 3 != 0) text += R"(,"destination":")" + address(number * 7) + "\"";
    if (number % 10 == 9) {
        text += R"(,"protocol":"ICMP")";
    } else if (number % 10 < 8) {
        text += number % 2 == 0 ? R"(,"protocol":"TCP")" : R"(,"protocol":"UDP")";
    }
    if (number % 5 == 0) text += R"(,"interfaceName":"norvatun0","interfaceDirection":"out")";
    if (number % 10 < 7) text += R"(,"destinationPort":)" + std::to_string(1 + number % 65535);
    return text + (number % 6 == 0 ? R"(,"jumpTo":"DROP"})" : R"(,"jumpTo":"ACCEPT"})");
}

std::string request(const std::string& label)
{
    std::string text = R"({"label":")" + label + R"(","chainNew":"NORVA","rules":[)";
    for (int number = 0; number < ruleCount; ++number)
        text += (number == 0 ? "" : ",") + rule(number);
    return text + "]}";
}

}  // namespace

int main()
{
    const std::string ours = request("ours");
    const std::string peers = request("peers");
    std::ofstream(rulesFile) << testsupport::setUpCommands(vknetconfig::parseFirewallRequest(peers.c_str()));
    bench::Table table("Packet filter");
    table.compare("replace 10,000 rules, to nft -f", 0.7,
                  bench::timed([&] { require(VkFirewallFullCtrl(ours.c_str()) == 0, "VkFirewallFullCtrl"); }),
                  bench::timed([] {
                      runNft({"-f", rulesFile});
                  }));
    table.compare("set up and remove one rule, to two nft processes", 1.0, bench::timed([] {
                      require(VkFirewallFullCtrl(R"({"label":"one","chainNew":"NORVA","rules":[{"operation":"append",)"
                                                 R"("jumpTo":"DROP"}]})") == 0,
                              "set up");
                      require(VkFirewallFullCtrl(R"({"label":"one","chainDelete":"NORVA"})") == 0, "removal");
                  }),
                  bench::timed([] {
                      runNft({"table inet two { chain c { type filter hook input priority 0; drop; }; }"});
                      runNft({"delete table inet two"});
                  }));
    return table.result();
}
