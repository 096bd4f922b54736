// SPDX-License-Identifier: Apache-2.0
//
// Requests to the socket of `vpnoalctl run`, and the profiles in them, of any shape. What is accepted can be handed to
// the plug-in as it is; what is refused is bad input, in one line.
#include "profile/Profile.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "CommandError.h"
#include "handles/JsonParser.h"
#include "run/Request.h"
#include "text/Names.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

void checkError(const vpnoalctl::CommandError& error)
{
    require(error.exitCode() == vpnoalctl::ExitUsage);
    const std::string line = error.what();
    require(!line.empty() && line.size() < 1000);
    require(std::none_of(line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }));
    const std::string answer = vpnoalctl::answerTo(error);
    require(json_object_is_type(jsonparser::parseStrict(answer.c_str()).get(), json_type_object));
    require(answer.find('\n') == std::string::npos || answer.find('\n') == answer.size() - 1);
}

void checkProfile(const vpnoalctl::Profile& profile)
{
    for (const vpnoalctl::ProfileRoute& route : profile.routes)
        require(route.destination.address == route.destination.base());
    for (const std::string& domain : profile.dnsDomains)
        require(static_cast<bool>(wfoal::checkDomainName(domain)));
    for (const std::string& server : profile.dnsServers)
        require(wfoal::parseDottedAddress(server).has_value());
    for (const vpnoalctl::FilterRule& rule : profile.filter) {
        require(rule.interface.empty() == (rule.direction == FILTER_DIRECTION_BOTH));
        require(rule.interface.empty() || wfoal::checkInterfaceName(rule.interface));
        for (const vpnoalctl::Endpoint& end : {rule.source, rule.destination})
            require(!end.network || end.network->address == end.network->base());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        checkProfile(vpnoalctl::parseProfile(text, "profile.json"));
    } catch (const vpnoalctl::CommandError& error) {
        checkError(error);
    }
    try {
        const vpnoalctl::Request request = vpnoalctl::parseRequest(text);
        if (request.profile) checkProfile(*request.profile);
    } catch (const vpnoalctl::CommandError& error) {
        checkError(error);
    }
    return 0;
}
