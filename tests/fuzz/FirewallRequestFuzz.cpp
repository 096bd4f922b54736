// SPDX-License-Identifier: Apache-2.0
//
// Requests for the packet filter, of any shape. Whatever is accepted fits into messages of the kernel, with names that
// nft can print.
#include <cstdlib>
#include <string>

#include "RequestError.h"
#include "firewall/FirewallMessages.h"
#include "firewall/FirewallRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    using namespace vknetconfig;
    const std::string json(reinterpret_cast<const char*>(data), size);
    try {
        const FirewallRequest request = parseFirewallRequest(json.c_str());
        NetlinkSocket socket(NETLINK_NETFILTER, "nftables");  // not opened before something is sent
        NftTransaction transaction(socket);
        const FirewallMessages messages(transaction, request);
        if (transaction.nextIndex() < request.rules.size() + 9) std::abort();
        for (const FirewallRule& rule : request.rules) {
            if (rule.interfaceName.find_first_of("\"/ \t\n{};") != std::string::npos) std::abort();
            if (rule.interfaceName.size() > 15) std::abort();
        }
        if (request.label.size() > 31 || request.chain.size() > 31) std::abort();
        if ((request.label + request.chain).find_first_of("\" \t\n{};") != std::string::npos) std::abort();
    } catch (const RequestError& error) {
        // One line, and no longer than a line of a log should be.
        const std::string line = error.what();
        if (line.empty() || line.size() > 400 || line.find('\n') != std::string::npos) std::abort();
    }
    return 0;
}
