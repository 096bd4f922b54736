// SPDX-License-Identifier: Apache-2.0
#include "resolved/LinkMessages.h"

#include <sys/socket.h>

#include <cerrno>
#include <string_view>

#include "handles/CString.h"
#include "resolved/BusCheck.h"

namespace wfoal {

namespace {

SdBusMessagePtr newCall(sd_bus* bus, const char* method)
{
    SdBusMessagePtr call;
    checkBus(obtain(call,
                    [&](sd_bus_message** made) {
                        return sd_bus_message_new_method_call(bus, made, resolvedName, resolvedManagerPath,
                                                              "org.freedesktop.resolve1.Manager", method);
                    }),
             method);
    return call;
}

void appendServers(sd_bus_message* call, const std::vector<DnsServer>& servers)
{
    checkBus(sd_bus_message_open_container(call, 'a', "(iayqs)"), "servers");
    for (const DnsServer& server : servers) {
        checkBus(sd_bus_message_open_container(call, 'r', "iayqs"), "server");
        checkBus(sd_bus_message_append(call, "i", server.family), "server");
        checkBus(sd_bus_message_append_array(call, 'y', server.address.data(), server.address.size()), "server");
        checkBus(sd_bus_message_append(call, "qs", server.port, server.name.c_str()), "server");
        checkBus(sd_bus_message_close_container(call), "server");
    }
    checkBus(sd_bus_message_close_container(call), "servers");
}

void appendDomains(sd_bus_message* call, const std::vector<DnsDomain>& domains)
{
    checkBus(sd_bus_message_open_container(call, 'a', "(sb)"), "domains");
    for (const DnsDomain& domain : domains)
        checkBus(sd_bus_message_append(call, "(sb)", domain.name.c_str(), domain.routeOnly ? 1 : 0), "domain");
    checkBus(sd_bus_message_close_container(call), "domains");
}

DnsServer readServer(sd_bus_message* reply)
{
    DnsServer server;
    const void* bytes = nullptr;
    std::size_t size = 0;
    const char* name = nullptr;
    checkBus(sd_bus_message_read(reply, "i", &server.family), "DNSEx");
    checkBus(sd_bus_message_read_array(reply, 'y', &bytes, &size), "DNSEx");
    checkBus(sd_bus_message_read(reply, "qs", &server.port, &name), "DNSEx");
    const std::size_t expected = server.family == AF_INET ? 4 : 16;
    if ((server.family != AF_INET && server.family != AF_INET6) || size != expected) failOnBus("DNSEx", -EBADMSG);
    server.address.assign(static_cast<const char*>(bytes), size);
    server.name = name;
    return server;
}

std::vector<DnsServer> readServers(sd_bus_message* reply)
{
    std::vector<DnsServer> servers;
    checkBus(sd_bus_message_enter_container(reply, 'a', "(iayqs)"), "DNSEx");
    int result = 0;
    while ((result = sd_bus_message_enter_container(reply, 'r', "iayqs")) > 0) {
        servers.push_back(readServer(reply));
        checkBus(sd_bus_message_exit_container(reply), "DNSEx");
    }
    checkBus(result, "DNSEx");
    checkBus(sd_bus_message_exit_container(reply), "DNSEx");
    return servers;
}

std::vector<DnsDomain> readDomains(sd_bus_message* reply)
{
    std::vector<DnsDomain> domains;
    checkBus(sd_bus_message_enter_container(reply, 'a', "(sb)"), "Domains");
    const char* name = nullptr;
    int routeOnly = 0;
    int result = 0;
    while ((result = sd_bus_message_read(reply, "(sb)", &name, &routeOnly)) > 0)
        domains.push_back({name, routeOnly != 0});
    checkBus(result, "Domains");
    checkBus(sd_bus_message_exit_container(reply), "Domains");
    return domains;
}

bool readFlag(sd_bus_message* reply)
{
    int flag = 0;
    checkBus(sd_bus_message_read(reply, "b", &flag), "DefaultRoute");
    return flag != 0;
}

std::string readText(sd_bus_message* reply)
{
    const char* text = nullptr;
    checkBus(sd_bus_message_read(reply, "s", &text), "property");
    return text;
}

std::string readTexts(sd_bus_message* reply)
{
    checkBus(sd_bus_message_enter_container(reply, 'a', "s"), "property");
    std::string texts;
    const char* text = nullptr;
    int result = 0;
    while ((result = sd_bus_message_read(reply, "s", &text)) > 0)
        texts += std::string(text) + " ";
    checkBus(result, "property");
    checkBus(sd_bus_message_exit_container(reply), "property");
    return texts;
}

// Takes one property out of its variant.
template <class Value>
void take(sd_bus_message* reply, const char* type, Value (*read)(sd_bus_message*), Value& value)
{
    checkBus(sd_bus_message_enter_container(reply, 'v', type), "property");
    value = read(reply);
    checkBus(sd_bus_message_exit_container(reply), "property");
}

// `read` takes the property of a name, or leaves it and returns false.
template <class Reader>
void readProperties(sd_bus_message* reply, Reader read)
{
    checkBus(sd_bus_message_enter_container(reply, 'a', "{sv}"), "properties");
    int result = 0;
    while ((result = sd_bus_message_enter_container(reply, 'e', "sv")) > 0) {
        const std::string name = readText(reply);
        if (!read(name, reply)) checkBus(sd_bus_message_skip(reply, "v"), "properties");
        checkBus(sd_bus_message_exit_container(reply), "properties");
    }
    checkBus(result, "properties");
}

}  // namespace

LinkDns settingsIn(sd_bus_message* properties)
{
    LinkDns dns;
    int found = 0;
    readProperties(properties, [&](std::string_view name, sd_bus_message* reply) {
        if (name == "DNSEx") {
            take(reply, "a(iayqs)", readServers, dns.servers);
        } else if (name == "Domains") {
            take(reply, "a(sb)", readDomains, dns.domains);
        } else if (name == "DefaultRoute") {
            take(reply, "b", readFlag, dns.defaultRoute);
        } else {
            return false;
        }
        ++found;
        return true;
    });
    if (found != 3) failOnBus("systemd-resolved: the settings of a link", -ENODATA);
    return dns;
}

std::string otherSettingsIn(sd_bus_message* properties)
{
    std::string all;
    readProperties(properties, [&all](std::string_view name, sd_bus_message* reply) {
        std::string value;
        if (name == "DNSSECNegativeTrustAnchors") {
            take(reply, "as", readTexts, value);
        } else if (name == "LLMNR" || name == "MulticastDNS" || name == "DNSOverTLS" || name == "DNSSEC") {
            take(reply, "s", readText, value);
        } else {
            return false;
        }
        all.append(name).append(" ").append(value).append(" ");
        return true;
    });
    return all;
}

SdBusMessagePtr callToSetServers(sd_bus* bus, int index, const std::vector<DnsServer>& servers)
{
    SdBusMessagePtr call = newCall(bus, "SetLinkDNSEx");
    checkBus(sd_bus_message_append(call.get(), "i", index), "servers");
    appendServers(call.get(), servers);
    return call;
}

SdBusMessagePtr callToSetDomains(sd_bus* bus, int index, const std::vector<DnsDomain>& domains)
{
    SdBusMessagePtr call = newCall(bus, "SetLinkDomains");
    checkBus(sd_bus_message_append(call.get(), "i", index), "domains");
    appendDomains(call.get(), domains);
    return call;
}

SdBusMessagePtr callToSetDefaultRoute(sd_bus* bus, int index, bool isDefault)
{
    SdBusMessagePtr call = newCall(bus, "SetLinkDefaultRoute");
    checkBus(sd_bus_message_append(call.get(), "ib", index, isDefault ? 1 : 0), "default route");
    return call;
}

SdBusMessagePtr callToRevert(sd_bus* bus, int index)
{
    SdBusMessagePtr call = newCall(bus, "RevertLink");
    checkBus(sd_bus_message_append(call.get(), "i", index), "revert");
    return call;
}

// The object of a link is named after its index.
SdBusMessagePtr callToGetAll(sd_bus* bus, int index)
{
    CStringPtr path;
    checkBus(obtain(path,
                    [index](char** made) {
                        return sd_bus_path_encode("/org/freedesktop/resolve1/link", std::to_string(index).c_str(),
                                                  made);
                    }),
             "GetAll");
    SdBusMessagePtr call;
    checkBus(obtain(call,
                    [&](sd_bus_message** made) {
                        return sd_bus_message_new_method_call(bus, made, resolvedName, path.get(),
                                                              "org.freedesktop.DBus.Properties", "GetAll");
                    }),
             "GetAll");
    checkBus(sd_bus_message_append(call.get(), "s", "org.freedesktop.resolve1.Link"), "GetAll");
    return call;
}

}  // namespace wfoal
