// SPDX-License-Identifier: Apache-2.0
#include "ServiceUri.h"

#include <glib.h>
#include <systemd/sd-bus.h>

namespace quor {

namespace {

constexpr char scheme[] = "vesk://";

bool isAcceptable(const ServiceUri& uri)
{
    return sd_bus_service_name_is_valid(uri.service.c_str()) > 0 && sd_bus_object_path_is_valid(uri.path.c_str()) > 0 &&
           isMethodName(uri.method.c_str());
}

}  // namespace

// sd-bus accepts a name that begins with a digit; the daemon ends the connection for that.
bool isMethodName(const char* name)
{
    return g_ascii_isdigit(*name) == 0 && sd_bus_member_name_is_valid(name) > 0;
}

std::optional<ServiceUri> parseServiceUri(const std::string& text)
{
    constexpr std::size_t begin = sizeof scheme - 1;
    if (text.compare(0, begin, scheme) != 0) return std::nullopt;
    const std::size_t pathBegin = text.find('/', begin);
    if (pathBegin == std::string::npos) return std::nullopt;
    const std::size_t methodBegin = text.rfind('/') + 1;
    ServiceUri uri{text.substr(begin, pathBegin - begin), "/", text.substr(methodBegin)};
    if (methodBegin - 1 == pathBegin + 1) return std::nullopt;  // an empty category
    if (methodBegin - 1 > pathBegin) uri.path = text.substr(pathBegin, methodBegin - 1 - pathBegin);
    if (!isAcceptable(uri)) return std::nullopt;
    return uri;
}

}  // namespace quor
