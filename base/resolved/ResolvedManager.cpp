// SPDX-License-Identifier: Apache-2.0
#include "resolved/ResolvedManager.h"

#include <poll.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <iterator>

#include "resolved/BusCheck.h"

namespace wfoal {

namespace {

constexpr auto longestWait = std::chrono::seconds(5);
constexpr char daemonName[] = "org.freedesktop.DBus";
constexpr char daemonPath[] = "/org/freedesktop/DBus";

// Errors by which the bus and the service say that something is not there.
constexpr const char* absenceErrors[] = {
    "org.freedesktop.resolve1.NoSuchLink",
    "org.freedesktop.DBus.Error.ServiceUnknown",
    "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.UnknownObject",
    "org.freedesktop.DBus.Error.Spawn.ServiceNotFound",
};

bool isAbsence(const sd_bus_error& error)
{
    return std::any_of(std::begin(absenceErrors), std::end(absenceErrors),
                       [&error](const char* name) { return sd_bus_error_has_name(&error, name) > 0; });
}

// Up to two calls that are made together, so that they take one round trip. systemd-resolved does them in their order.
class Calls {
public:
    explicit Calls(sd_bus* bus) : mBus(bus) {}
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    void send(const SdBusMessagePtr& call, const char* what)
    {
        Pending& pending = mPending.at(mCount++);
        pending.what = what;
        checkBus(obtain(pending.slot,
                        [&](sd_bus_slot** made) {
                            return sd_bus_call_async(mBus, made, call.get(), onReply, &pending.reply, 0);
                        }),
                 what);
    }

    /// Waits for all replies. Throws the first error. Returns the name of who replied.
    std::string wait()
    {
        const char* name = nullptr;
        for (std::size_t i = 0; i < mCount; ++i) {
            name = sd_bus_message_get_sender(awaitReply(mPending[i]));
            checkReply(mPending[i]);
        }
        return name == nullptr ? std::string() : name;
    }

    /// Waits for the reply to the first call, which may be an error. The bus need not be ready before.
    sd_bus_message* first() { return awaitReply(mPending.front()); }

private:
    struct Pending {
        const char* what = nullptr;
        SdBusSlotPtr slot;
        SdBusMessagePtr reply;
    };

    // A call that the bus carries has a time limit, after which sd-bus makes an error of it.
    sd_bus_message* awaitReply(const Pending& pending)
    {
        const auto end = std::chrono::steady_clock::now() + longestWait;
        while (true) {
            processPending(mBus);
            if (pending.reply) return pending.reply.get();
            if (std::chrono::steady_clock::now() >= end) failOnBus("system bus", -ETIMEDOUT);
            waitForEvents(mBus, -1, end);
        }
    }

    static void checkReply(const Pending& pending)
    {
        const sd_bus_error* const error = sd_bus_message_get_error(pending.reply.get());
        if (error == nullptr) return;
        const char* const reason = error->message != nullptr ? error->message : error->name;
        throw JsonError("ipv4.dns", std::string("systemd-resolved: ") + pending.what + ": " + reason);
    }

    static int onReply(sd_bus_message* reply, void* data, sd_bus_error*)
    {
        static_cast<SdBusMessagePtr*>(data)->reset(sd_bus_message_ref(reply));
        return 0;
    }

    sd_bus* const mBus;
    std::array<Pending, 2> mPending;
    std::size_t mCount = 0;
};

// Makes one call. Returns the name of who replied.
std::string send(sd_bus* bus, const SdBusMessagePtr& call, const char* what)
{
    Calls calls(bus);
    calls.send(call, what);
    return calls.wait();
}

}  // namespace

void processPending(sd_bus* bus)
{
    int processed = 0;
    do {
        processed = sd_bus_process(bus, nullptr);
        checkBus(processed, "system bus");
    } while (processed > 0);
}

bool waitForEvents(sd_bus* bus, int stop, std::chrono::steady_clock::time_point end)
{
    using namespace std::chrono;
    std::uint64_t ownEnd = 0;  // when sd-bus itself has something to do, in microseconds of the same clock
    checkBus(sd_bus_get_timeout(bus, &ownEnd), "system bus");
    const auto wanted = ceil<milliseconds>(std::min(end - steady_clock::now(), steady_clock::duration(hours(1))));
    const auto own = ceil<milliseconds>(microseconds(std::min<std::uint64_t>(ownEnd, INT64_MAX / 1000)) -
                                        steady_clock::now().time_since_epoch());
    const int patience = static_cast<int>(std::max<std::int64_t>(0, std::min(wanted, own).count()));
    const int events = sd_bus_get_events(bus);
    checkBus(events, "system bus");
    pollfd waiting[] = {{sd_bus_get_fd(bus), static_cast<short>(events), 0}, {stop, POLLIN, 0}};
    if (poll(waiting, 2, patience) < 0 && errno != EINTR) failOnBus("system bus", -errno);
    return waiting[1].revents == 0;
}

SdBusPtr startSystemBus()
{
    SdBusPtr bus;
    checkBus(obtain(bus, sd_bus_open_system), "system bus");
    const auto limit = std::chrono::duration_cast<std::chrono::microseconds>(longestWait).count();
    checkBus(sd_bus_set_method_call_timeout(bus.get(), static_cast<std::uint64_t>(limit)), "system bus");
    return bus;
}

SdBusPtr openSystemBus(int stop)
{
    SdBusPtr bus = startSystemBus();
    // A call would wait for a silent bus as long as the bus pleases.
    const auto end = std::chrono::steady_clock::now() + longestWait;
    while (true) {
        processPending(bus.get());
        const int ready = sd_bus_is_ready(bus.get());
        checkBus(ready, "system bus");
        if (ready > 0) return bus;
        if (std::chrono::steady_clock::now() >= end) failOnBus("system bus", -ETIMEDOUT);
        if (!waitForEvents(bus.get(), stop, end)) failOnBus("system bus", -ECANCELED);
    }
}

bool ResolvedManager::answers(int index, std::optional<LinkDns>& settings)
{
    Calls calls(mBus.get());
    calls.send(callToGetAll(mBus.get(), index), "GetAll");
    sd_bus_message* const reply = calls.first();
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) {
        // There may be no such link.
        if (sd_bus_message_get_errno(reply) == ETIMEDOUT) return false;
        return sd_bus_call_method(mBus.get(), resolvedName, resolvedManagerPath, "org.freedesktop.DBus.Peer", "Ping",
                                  nullptr, nullptr, "") >= 0;
    }
    try {
        settings = settingsIn(reply);
    } catch (const JsonError&) {
        // It answers, and read() says what is wrong.
    }
    return true;
}

// A bus that restarted gives the same names once more, but has another id.
std::string ResolvedManager::withBusId(const std::string& name)
{
    sd_id128_t id{};
    checkBus(sd_bus_get_bus_id(mBus.get(), &id), "system bus");
    char text[SD_ID128_STRING_MAX] = {};
    return name + "@" + sd_id128_to_string(id, text);
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
    return withBusId(name);
}

// All properties of a link in one call; null when the link, or the service, is not there.
SdBusMessagePtr ResolvedManager::propertiesOf(int index)
{
    Calls calls(mBus.get());
    calls.send(callToGetAll(mBus.get(), index), "GetAll");
    const sd_bus_error* const error = sd_bus_message_get_error(calls.first());
    if (error != nullptr && isAbsence(*error)) return nullptr;
    calls.wait();
    return SdBusMessagePtr(sd_bus_message_ref(calls.first()));
}

std::optional<LinkDns> ResolvedManager::read(int index)
{
    const SdBusMessagePtr properties = propertiesOf(index);
    if (!properties) return std::nullopt;
    return settingsIn(properties.get());
}

// What can be set on a link beside servers, domains and default route, as one text; empty when the link is not there.
std::string ResolvedManager::otherSettings(int index)
{
    const SdBusMessagePtr properties = propertiesOf(index);
    return properties ? otherSettingsIn(properties.get()) : std::string();
}

void ResolvedManager::writeServers(int index, const LinkDns& dns)
{
    send(mBus.get(), callToSetServers(mBus.get(), index, dns.servers), "servers");
}

void ResolvedManager::writeDomains(int index, const LinkDns& dns)
{
    send(mBus.get(), callToSetDomains(mBus.get(), index, dns.domains), "domains");
}

std::string ResolvedManager::writeDefaultRoute(int index, const LinkDns& dns)
{
    return send(mBus.get(), callToSetDefaultRoute(mBus.get(), index, dns.defaultRoute), "default route");
}

std::string ResolvedManager::write(int index, const LinkDns& dns)
{
    Calls calls(mBus.get());
    calls.send(callToSetServers(mBus.get(), index, dns.servers), "servers");
    calls.send(callToSetDomains(mBus.get(), index, dns.domains), "domains");
    calls.wait();
    // Nothing resets it, so it is set when the others have been taken.
    return withBusId(writeDefaultRoute(index, dns));
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
    send(mBus.get(), callToRevert(mBus.get(), index), "revert");
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
