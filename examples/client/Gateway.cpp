// SPDX-License-Identifier: Apache-2.0
#include "client/Gateway.h"

#include <cctype>
#include <cstdlib>

#include "CommandError.h"
#include "certificates/CertificateFile.h"
#include "profile/ProfileFile.h"
#include "profile/Values.h"
#include "text/Excerpt.h"
#include "text/Names.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

using wfoal::JsonField;
using wfoal::JsonValue;

constexpr std::size_t longestText = 4096;

std::string nonEmptyText(const JsonValue& value)
{
    std::string text(value.text());
    if (text.empty()) value.refuse("must not be empty");
    if (text.size() > longestText) value.refuse("is longer than 4096 bytes");
    return text;
}

wfoal::Check checkVariableName(const std::string& name)
{
    const auto isFit = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
    bool fits = std::isdigit(static_cast<unsigned char>(name.front())) == 0;
    for (const char c : name)
        fits = fits && isFit(static_cast<unsigned char>(c));
    if (!fits) return wfoal::Fault{wfoal::excerpt(name) + " is no name of an environment variable"};
    return wfoal::passed();
}

constexpr JsonField<GatewaySettings> keys[] = {
    {"address", true, [](const JsonValue& value, GatewaySettings& gateway) { gateway.address = hostAddressOf(value); }},
    {"port", false, [](const JsonValue& value, GatewaySettings& gateway) { gateway.port = portOf(value); }},
    {"serverName", true,
     [](const JsonValue& value, GatewaySettings& gateway) {
         gateway.serverName = value.text();
         require(value, wfoal::checkDomainName(gateway.serverName));
     }},
    {"certificate", false,
     [](const JsonValue& value, GatewaySettings& gateway) { gateway.certificate = nonEmptyText(value); }},
    {"passwordFile", false,
     [](const JsonValue& value, GatewaySettings& gateway) {
         gateway.passwordFile = nonEmptyText(value);
         if (!gateway.passwordVariable.empty()) value.refuse("there is a passwordVariable already");
     }},
    {"passwordVariable", false,
     [](const JsonValue& value, GatewaySettings& gateway) {
         gateway.passwordVariable = nonEmptyText(value);
         require(value, checkVariableName(gateway.passwordVariable));
         if (!gateway.passwordFile.empty()) value.refuse("there is a passwordFile already");
     }},
};

constexpr JsonField<GatewaySettings> fileKeys[] = {
    {"gateway", true, [](const JsonValue& value, GatewaySettings& gateway) { value.readObject(keys, gateway); }},
};

}  // namespace

GatewaySettings parseGateway(const std::string& text, const std::string& file)
{
    GatewaySettings gateway;
    readJson(text, {file, "the gateway's file"}, [&](const JsonValue& root) { root.readObject(fileKeys, gateway); });
    return gateway;
}

GatewaySettings loadGateway(const std::string& file)
{
    return parseGateway(readJsonFile(file), file);
}

std::optional<std::string> keyPassword(const GatewaySettings& gateway)
{
    if (!gateway.passwordVariable.empty()) {
        const char* text = std::getenv(gateway.passwordVariable.c_str());
        if (text == nullptr) {
            throw badInput("gateway.passwordVariable", "there is no variable " + gateway.passwordVariable,
                           "set it; nothing was changed");
        }
        return text;
    }
    if (gateway.passwordFile.empty()) return std::nullopt;
    try {
        return readPasswordFile(gateway.passwordFile);
    } catch (const CommandError& error) {
        throw badInput("gateway.passwordFile", error.what(), "nothing was changed");
    }
}

}  // namespace sampleclient
