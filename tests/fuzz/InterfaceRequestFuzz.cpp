// SPDX-License-Identifier: Apache-2.0
//
// Requests for an interface, of any shape. Whatever is accepted has only names and numbers that the rest relies on.
#include "interface/InterfaceRequest.h"

#include <cstdlib>
#include <string>

#include "RequestError.h"
#include "resolved/LinkDns.h"
#include "text/Names.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    using namespace vknetconfig;
    const std::string json(reinterpret_cast<const char*>(data), size);
    try {
        const InterfaceRequest request = parseInterfaceRequest(json.c_str());
        if (!wfoal::checkInterfaceName(request.ifName)) std::abort();
        for (std::size_t index = 0; index < request.routes.size(); ++index) {
            if (request.routeKey(index).empty()) std::abort();
        }
        // DNS settings go through the undo log, where a line must come back as it was.
        const wfoal::LinkChange change{{1, request.ifName}, resolvedSettingsFor(request.dns), {}};
        const wfoal::LinkChange again = wfoal::LinkChange::decode(change.encode());
        if (!(again.link == change.link) || !(again.set == change.set)) std::abort();
    } catch (const RequestError& error) {
        // One line, and no longer than a line of a log should be.
        const std::string line = error.what();
        if (line.empty() || line.size() > 400 || line.find('\n') != std::string::npos) std::abort();
    }
    return 0;
}
