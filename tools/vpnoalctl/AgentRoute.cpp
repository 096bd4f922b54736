// SPDX-License-Identifier: Apache-2.0
#include "AgentRoute.h"

#include <cstdlib>
#include <utility>

namespace vpnoalctl {

AgentRoute::AgentRoute(std::string destination, std::string netmask, std::string gateway, unsigned int metric)
    : mDestination(std::move(destination)), mNetmask(std::move(netmask)), mGateway(std::move(gateway)), mMetric(metric)
{
}

void AgentRoute::take(std::string& member, char* text)
{
    member = text != nullptr ? text : "";
    std::free(text);
}

}  // namespace vpnoalctl
