// SPDX-License-Identifier: Apache-2.0
#include "resolved/ResolvedManager.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "json/JsonError.h"

namespace wfoal {

namespace {

constexpr auto longestWait = std::chrono::seconds(5);
constexpr char daemonName[] = "org.freedesktop.DBus";
constexpr char daemonPath[] = "/org/freedesktop/DBus";
constexpr char managerPath[] = "/org/freedesktop/resolve1";
constexpr char managerInterface[] = "org.freedesktop.resolve1.Manager";
constexpr char linkInterface[] = "org.freedesktop.resolve1.Link";

// Errors by which the bus and the service say that something is not there.
constexpr const char* absenceErrors[] = {
    "org.freedesktop.resolve1.NoSuchLink",
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.UnknownObject",
    "org.freedesktop.DBus.Error.Spawn.ServiceNotFound",
};

[[noreturn]] void fail(const std::string& what, int result)
{
    throw JsonError("ipv4.dns", what + ": " + std::strerror(-result));
}

void check(int result, const char* what)
{
    if (result < 0) fail(what, result);
}

// The error of one call.
class BusError {
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&mError); }
    sd_bus_error* out() { return &mError; }
    bool isAbsence() const
    {
        for (const char* name : absenceErrors) {
            if (sd_bus_error_has_name(&mError, name) > 0) return true;
        }
        return false;
    }
    [[noreturn]] void fail(const char* what, int result) const
    {
        if (mError.message == nullptr) wfoal::fail(std::string("systemd-resolved: ") + what, result);
        throw JsonError("ipv4.dns", std::string("systemd-resolved: ") + what + ": " + mError.message);
    }

private:
    sd_bus_error mError{};
};

// The reply to a call; null when the link, or the service, is not there.
template <class Call>
SdBusMessagePtr replyUnlessAbsent(const char* what, Call call)
{
    BusError error;
    SdBusMessagePtr reply;
    const int result = obtain(reply, [&](sd_bus_message** received) { return call(error.out(), received); });
    if (result < 0 && !error.isAbsence()) error.fail(what, result);
    return reply;
}

SdBusMessagePtr newCall(sd_bus* bus, const char* method)
{
    SdBusMessagePtr call;
    check(obtain(call,
                 [&](sd_bus_message** made) {
                     return sd_bus_message_new_method_call(bus, made, resolvedName, managerPath, managerInterface,
                                                           method);
                 }),
          method);
    return call;
}

void send(sd_bus* bus, const SdBusMessagePtr& call, const char* what)
{
    BusError error;
    const int result = sd_bus_call(bus, call.get(), 0, error.out(), nullptr);
    if (result < 0) error.fail(what, result);
}

void appendServers(sd_bus_message* call, const std::vector<DnsServer>& servers)
{
    check(sd_bus_message_open_container(call, 'a', "(iayqs)"), "servers");
    for (const DnsServer& server : servers) {
        check(sd_bus_message_open_container(call, 'r', "iayqs"), "server");
        check(sd_bus_message_append(call, "i", server.family), "server");
        check(sd_bus_message_append_array(call, 'y', server.address.data(), server.address.size()), "server");
        check(sd_bus_message_append(call, "qs", server.port, server.name.c_str()), "server");
        check(sd_bus_message_close_container(call), "server");
    }
    check(sd_bus_message_close_container(call), "servers");
}

void appendDomains(sd_bus_message* call, const std::vector<DnsDomain>& domains)
{
    check(sd_bus_message_open_container(call, 'a', "(sb)"), "domains");
    for (const DnsDomain& domain : domains)
        check(sd_bus_message_append(call, "(sb)", domain.name.c_str(), domain.routeOnly ? 1 : 0), "domain");
    check(sd_bus_message_close_container(call), "domains");
}

DnsServer readServer(sd_bus_message* reply)
{
    DnsServer server;
    const void* bytes = nullptr;
    std::size_t size = 0;
    const char* name = nullptr;
    check(sd_bus_message_read(reply, "i", &server.family), "DNSEx");
    check(sd_bus_message_read_array(reply, 'y', &bytes, &size), "DNSEx");
    check(sd_bus_message_read(reply, "qs", &server.port, &name), "DNSEx");
    const std::size_t expected = server.family == AF_INET ? 4 : 16;
    if ((server.family != AF_INET && server.family != AF_INET6) || size != expected) fail("DNSEx", -EBADMSG);
    server.address.assign(static_cast<const char*>(bytes), size);
    server.name = name;
    return server;
}

std::vector<DnsServer> readServers(sd_bus_message* reply)
{
    std::vector<DnsServer> servers;
    check(sd_bus_message_enter_container(reply, 'a', "(iayqs)"), "DNSEx");
    int result = 0;
    while ((result = sd_bus_message_enter_container(reply, 'r', "iayqs")) > 0) {
        servers.push_back(readServer(reply));
        check(sd_bus_message_exit_container(reply), "DNSEx");
    }
    check(result, "DNSEx");
    check(sd_bus_message_exit_container(reply), "DNSEx");
    return servers;
}

std::vector<DnsDomain> readDomains(sd_bus_message* reply)
{
    std::vector<DnsDomain> domains;
    check(sd_bus_message_enter_container(reply, 'a', "(sb)"), "Domains");
    const char* name = nullptr;
    int routeOnly = 0;
    int result = 0;
    while ((result = sd_bus_message_read(reply, "(sb)", &name, &routeOnly)) > 0)
        domains.push_back({name, routeOnly != 0});
    check(result, "Domains");
    check(sd_bus_message_exit_container(reply), "Domains");
    return domains;
}

bool readFlag(sd_bus_message* reply)
{
    int flag = 0;
    check(sd_bus_message_read(reply, "b", &flag), "DefaultRoute");
    return flag != 0;
}

std::string readText(sd_bus_message* reply)
{
    const char* text = nullptr;
    check(sd_bus_message_read(reply, "s", &text), "property");
    return text;
}

std::string readTexts(sd_bus_message* reply)
{
    check(sd_bus_message_enter_container(reply, 'a', "s"), "property");
    std::string texts;
    const char* text = nullptr;
    int result = 0;
    while ((result = sd_bus_message_read(reply, "s", &text)) > 0)
        texts += std::string(text) + " ";
    check(result, "property");
    check(sd_bus_message_exit_container(reply), "property");
    return texts;
}

// Takes one property out of its variant.
template <class Value>
void take(sd_bus_message* reply, const char* type, Value (*read)(sd_bus_message*), Value& value)
{
    check(sd_bus_message_enter_container(reply, 'v', type), "property");
    value = read(reply);
    check(sd_bus_message_exit_container(reply), "property");
}

// `read` takes the property of a name, or leaves it and returns false.
template <class Reader>
void readProperties(sd_bus_message* reply, Reader read)
{
    check(sd_bus_message_enter_container(reply, 'a', "{sv}"), "properties");
    int result = 0;
    while ((result = sd_bus_message_enter_container(reply, 'e', "sv")) > 0) {
        const std::string name = readText(reply);
        if (!read(name, reply)) check(sd_bus_message_skip(reply, "v"), "properties");
        check(sd_bus_message_exit_container(reply), "properties");
    }
    check(result, "properties");
}

}  // namespace

void processPending(sd_bus* bus)
{
    int processed = 0;
    do {
        processed = sd_bus_process(bus, nullptr);
        check(processed, "system bus");
    } while (processed > 0);
}

bool waitForEvents(sd_bus* bus, int stop, std::chrono::steady_clock::time_point end)
{
    using namespace std::chrono;
    std::uint64_t ownEnd = 0;  // when sd-bus itself has something to do, in microseconds of the same clock
    check(sd_bus_get_timeout(bus, &ownEnd), "system bus");
    const auto wanted = ceil<milliseconds>(std::min(end - steady_clock::now(), steady_clock::duration(hours(1))));
    const auto own = ceil<milliseconds>(microseconds(std::min<std::uint64_t>(ownEnd, INT64_MAX / 1000)) -
                                        steady_clock::now().time_since_epoch());
    const int patience = static_cast<int>(std::max<std::int64_t>(0, std::min(wanted, own).count()));
    const int events = sd_bus_get_events(bus);
    check(events, "system bus");
    pollfd waiting[] = {{sd_bus_get_fd(bus), static_cast<short>(events), 0}, {stop, POLLIN, 0}};
    if (poll(waiting, 2, patience) < 0 && errno != EINTR) fail("system bus", -errno);
    return waiting[1].revents == 0;
}

SdBusPtr openSystemBus(int stop)
{
    SdBusPtr bus;
    check(obtain(bus, sd_bus_open_system), "system bus");
    const auto limit = std::chrono::duration_cast<std::chrono::microseconds>(longestWait).count();
    check(sd_bus_set_method_call_timeout(bus.get(), static_cast<std::uint64_t>(limit)), "system bus");
    // A call would wait for a silent bus as long as the bus pleases.
    const auto end = std::chrono::steady_clock::now() + longestWait;
    while (true) {
        processPending(bus.get());
        const int ready = sd_bus_is_ready(bus.get());
        check(ready, "system bus");
        if (ready > 0) return bus;
        if (std::chrono::steady_clock::now() >= end) fail("system bus", -ETIMEDOUT);
        if (!waitForEvents(bus.get(), stop, end)) fail("system bus", -ECANCELED);
    }
}

bool ResolvedManager::answers()
{
    return sd_bus_call_method(mBus.get(), resolvedName, managerPath, "org.freedesktop.DBus.Peer", "Ping", nullptr,
                              nullptr, "") >= 0;
}

std::string ResolvedManager::owner()
{
    SdBusMessagePtr answer;
    const int result = obtain(answer, [&](sd_bus_message** received) {
        return sd_bus_call_method(mBus.get(), daemonName, daemonPath, daemonName, "GetNameOwner", nullptr, received,
                                  "s", resolvedName);
    });
    const char* name = nullptr;
    if (result < 0 || sd_bus_message_read(answer.get(), "s", &name) < 0) return {};
    // A bus that restarted gives the same names once more, but has another id.
    sd_id128_t id{};
    check(sd_bus_get_bus_id(mBus.get(), &id), "system bus");
    char text[SD_ID128_STRING_MAX] = {};
    return std::string(name) + "@" + sd_id128_to_string(id, text);
}

// Empty when the link, or the service, is not there.
std::string ResolvedManager::pathOf(int index)
{
    const SdBusMessagePtr reply = replyUnlessAbsent("GetLink", [&](sd_bus_error* error, sd_bus_message** received) {
        return sd_bus_call_method(mBus.get(), resolvedName, managerPath, managerInterface, "GetLink", error, received,
                                  "i", index);
    });
    if (!reply) return {};
    const char* path = nullptr;
    check(sd_bus_message_read(reply.get(), "o", &path), "GetLink");
    return path;
}

// All properties of a link in one call; null when the link, or the service, is not there.
SdBusMessagePtr ResolvedManager::propertiesOf(int index)
{
    const std::string path = pathOf(index);
    if (path.empty()) return nullptr;
    return replyUnlessAbsent("GetAll", [&](sd_bus_error* error, sd_bus_message** received) {
        return sd_bus_call_method(mBus.get(), resolvedName, path.c_str(), "org.freedesktop.DBus.Properties", "GetAll",
                                  error, received, "s", linkInterface);
    });
}

std::optional<LinkDns> ResolvedManager::read(int index)
{
    const SdBusMessagePtr properties = propertiesOf(index);
    if (!properties) return std::nullopt;
    LinkDns dns;
    int found = 0;
    readProperties(properties.get(), [&](std::string_view name, sd_bus_message* reply) {
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
    if (found != 3) fail("systemd-resolved: the settings of a link", -ENODATA);
    return dns;
}

// What can be set on a link beside servers, domains and default route, as one text; empty when the link is not there.
std::string ResolvedManager::otherSettings(int index)
{
    const SdBusMessagePtr properties = propertiesOf(index);
    if (!properties) return {};
    std::string all;
    readProperties(properties.get(), [&all](std::string_view name, sd_bus_message* reply) {
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

void ResolvedManager::writeServers(int index, const LinkDns& dns)
{
    const SdBusMessagePtr servers = newCall(mBus.get(), "SetLinkDNSEx");
    check(sd_bus_message_append(servers.get(), "i", index), "servers");
    appendServers(servers.get(), dns.servers);
    send(mBus.get(), servers, "servers");
}

void ResolvedManager::writeDomains(int index, const LinkDns& dns)
{
    const SdBusMessagePtr domains = newCall(mBus.get(), "SetLinkDomains");
    check(sd_bus_message_append(domains.get(), "i", index), "domains");
    appendDomains(domains.get(), dns.domains);
    send(mBus.get(), domains, "domains");
}

void ResolvedManager::writeDefaultRoute(int index, const LinkDns& dns)
{
    const SdBusMessagePtr route = newCall(mBus.get(), "SetLinkDefaultRoute");
    check(sd_bus_message_append(route.get(), "ib", index, dns.defaultRoute ? 1 : 0), "default route");
    send(mBus.get(), route, "default route");
}

void ResolvedManager::write(int index, const LinkDns& dns)
{
    writeServers(index, dns);
    writeDomains(index, dns);
    writeDefaultRoute(index, dns);
}

bool ResolvedManager::undo(const LinkChange& change)
{
    if (!hasIndex(change.link)) return true;
    const auto now = read(change.link.index);
    if (!now) return false;
    restore(change.link.index, stateAfterUndo(change, *now), *now);
    return true;
}

// Removes all settings of the link.
void ResolvedManager::revert(int index)
{
    const SdBusMessagePtr call = newCall(mBus.get(), "RevertLink");
    check(sd_bus_message_append(call.get(), "i", index), "revert");
    send(mBus.get(), call, "revert");
}

// No servers or domains remain, so the link is reverted; that also resets its default-route setting. It is done only
// where nothing else is set either: there the link has what the loopback device has, which is never configured.
void ResolvedManager::restore(int index, const LinkDns& before, const LinkDns& now)
{
    constexpr int loopback = 1;
    if (before == now) return;
    const std::string others = otherSettings(index);
    if (before == LinkDns() && !others.empty() && others == otherSettings(loopback)) return revert(index);
    if (!(before.servers == now.servers)) writeServers(index, before);
    if (!(before.domains == now.domains)) writeDomains(index, before);
    // Where none was set it follows from the servers and domains.
    const auto after = read(index);
    if (after && after->defaultRoute != before.defaultRoute) writeDefaultRoute(index, before);
}

}  // namespace wfoal
