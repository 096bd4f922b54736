// SPDX-License-Identifier: Apache-2.0
//
// Routing tables of growing size: reading, listing and choosing, against a dump that is only received, the ip tool and
// libnl. Records are left behind by design, so each of our runs fills fresh memory, as it does in an agent.
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netlink/route/route.h>
#include <netlink/socket.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "AgentObjects.h"
#include "Apart.h"
#include "Comparison.h"
#include "FakeVkLog.h"
#include "NetLinkHelper.h"
#include "RouteBatch.h"
#include "RouteMessages.h"
#include "Shell.h"
#include "SocketInterface.h"
#include "SystemInterface.h"

namespace {

using bench::require;

// The least that reading the table takes: the request, and receiving until the end without a look at the routes.
class RawDump {
public:
    RawDump() : mSocket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

    void run() const
    {
        run([](const char*, ssize_t) {});
    }

    /// With a record for each message, which stays allocated, and a list of them.
    void runWithRecords() const
    {
        GPtrArray* const list = g_ptr_array_new();
        run([list](const char* bytes, ssize_t length) {
            auto left = static_cast<unsigned>(length);
            for (const auto* next = reinterpret_cast<const nlmsghdr*>(bytes); NLMSG_OK(next, left);
                 next = NLMSG_NEXT(next, left))
                g_ptr_array_add(list, g_try_malloc0(sizeof(RouteInfo)));
        });
        releaseRoutingTableList(list);
    }

private:
    template <typename Use>
    void run(Use use) const
    {
        nlmsghdr header{};
        header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
        header.nlmsg_type = RTM_GETROUTE;
        header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        const std::string request = testsupport::bytesOf(header) + testsupport::bytesOf(testsupport::routeHeader(0));
        require(send(mSocket.get(), request.data(), request.size(), 0) > 0, "send");
        alignas(nlmsghdr) char buffer[16384];
        do {
            const ssize_t received = recv(mSocket.get(), buffer, sizeof buffer, 0);
            require(received > 0, "recv");
            use(buffer, received);
        } while (reinterpret_cast<const nlmsghdr*>(buffer)->nlmsg_type != NLMSG_DONE);
    }

    UniqueFd mSocket;
};

void readWithLibnl(nl_sock* socket)
{
    nl_cache* routes = nullptr;
    require(rtnl_route_alloc_cache(socket, AF_INET, 0, &routes) == 0, "rtnl_route_alloc_cache");
    nl_cache_free(routes);
}

void readByPlugin()
{
    GPtrArray* routes = sNlHelper.getRoutingTableList();
    require(routes != nullptr, "getRoutingTableList");
    releaseRoutingTableList(routes);
}

// What a choice does after reading: one name for one index, through a socket of its own.
void lookUpName(unsigned index)
{
    const UniqueFd descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    request.ifr_ifindex = static_cast<int>(index);
    require(ioctl(descriptor.get(), SIOCGIFNAME, &request) == 0, "SIOCGIFNAME");
}

double secondsOn(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double seconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

// Processor time, in the kernel as well, so that other load does not count: a dump never waits for anything. So many
// runs in one measurement that it takes long enough.
template <typename Work>
bench::Measured repeated(unsigned routes, Work work)
{
    const unsigned times = routes < 10'000 ? 200 : routes < 100'000 ? 5 : 1;
    return [times, work] {
        const double begin = secondsOn(CLOCK_THREAD_CPUTIME_ID);
        for (unsigned i = 0; i < times; ++i)
            work();
        return (secondsOn(CLOCK_THREAD_CPUTIME_ID) - begin) / times;
    };
}

// Processor time of the ip tool, which it needs until its text is written.
double runIpTool()
{
    const auto childrenSeconds = [] {
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        return seconds(usage.ru_utime) + seconds(usage.ru_stime);
    };
    const double begin = childrenSeconds();
    require(std::system("exec ip -4 route show table all >/dev/null") == 0, "ip");
    return childrenSeconds() - begin;
}

class RouteBench {
public:
    RouteBench()
    {
        fakes::logContext().level = 6;  // debug logging off
        testsupport::addVethPair("eth0", "peer0", "10.0.0.2/8");
        testsupport::shell("ip route add default via 10.0.0.1");
        sNlHelper = NetLinkHelper(UniqueFd());
        sNlHelper = NetLinkHelper(NETLINK_ROUTE, 0);
    }

    void growTo(unsigned routes)
    {
        const unsigned first = mRoutes;
        mRoutes = routes;
        bench::apart<int>([&] {
            testsupport::RouteBatch batch;
            for (unsigned i = first; i < routes; ++i) {
                testsupport::NewRoute route;
                route.destination = 0x14000000 + i * 256;
                route.prefixLength = 24;
                route.index = if_nametoindex("eth0");
                route.gateway = 0x0a000100 + i % 1000;
                batch.add(route);
            }
            require(batch.send() == 0, "adding routes");
            return 0;
        });
    }

    void compare()
    {
        const std::string size = std::to_string(mRoutes) + " routes: ";
        const int rounds = mRoutes > 100'000 ? 7 : 11;
        const auto raw = repeated(mRoutes, [this] { mRaw.run(); });
        const auto reading = repeated(mRoutes, readByPlugin);
        const auto choosing =
            repeated(mRoutes, [this] { require(mSocketInterface.getBestInterfaceId() == "eth0", "choice"); });

        mReading[mRoutes] = run(size + "getRoutingTableList, to raw dump", 1.5, reading, raw, rounds);
        run(size + "getRoutingTableList (floor), to a dump with records", bench::noLimit, reading,
            repeated(mRoutes, [this] { mRaw.runWithRecords(); }), rounds);
        mListing[mRoutes] = run(size + "EnumerateRoutes, to raw dump", 2.5, listing(), raw, rounds);
        // The look-up's socket is opened anew at each choice, 7 us that only a small table makes visible.
        const bool isSmall = mRoutes < 10'000;
        run(size + "getBestInterfaceId, to getRoutingTableList", isSmall ? 1.25 : 1.05, choosing, reading,
            2 * rounds + 1);
        if (isSmall) {
            const auto bareChoice = repeated(mRoutes, [index = if_nametoindex("eth0")] {
                readByPlugin();
                lookUpName(index);
            });
            run(size + "the same, to that and a bare look-up", 1.05, choosing, bareChoice, 2 * rounds + 1);
        }
        run(size + "EnumerateRoutes, to ip route show", 0.5, listing(), runIpTool, rounds);
        compareWithLibnl(size, rounds);
    }

    /// How the cost of one route grows with the table, against how that of the raw dump does.
    void compareGrowth(unsigned from, unsigned to)
    {
        const auto growth = [&](const std::map<unsigned, bench::Medians>& medians) {
            return medians.at(to).ours / medians.at(from).ours / (medians.at(to).peer / medians.at(from).peer);
        };
        const std::string range = " from " + std::to_string(from) + " to " + std::to_string(to) + " routes";
        mTable.ratio("growth of reading" + range + ", to the raw dump's", 1.1, growth(mReading));
        mTable.ratio("growth of listing" + range + ", to the raw dump's", 1.1, growth(mListing));
    }

    int result() const { return mWithinLimits ? mTable.result() : 1; }

private:
    struct Outcome {
        bench::Medians medians;
        int result;
    };

    bench::Medians run(const std::string& name, double limit, const bench::Measured& ours, const bench::Measured& peer,
                       int rounds)
    {
        const auto outcome = bench::apart<Outcome>([&] {
            const bench::Medians medians = mTable.compare(name, limit, ours, peer, rounds);
            return Outcome{medians, mTable.result()};
        });
        mWithinLimits = mWithinLimits && outcome.result == 0;
        return outcome.medians;
    }

    // Its cache takes minutes for the largest table.
    void compareWithLibnl(const std::string& size, int rounds)
    {
        if (mRoutes > 100'000) return;
        const std::shared_ptr<nl_sock> socket(nl_socket_alloc(), nl_socket_free);
        require(nl_connect(socket.get(), NETLINK_ROUTE) == 0, "nl_connect");
        run(size + "EnumerateRoutes, to libnl's cache", 1, listing(),
            repeated(mRoutes, [socket] { readWithLibnl(socket.get()); }), mRoutes > 10'000 ? 1 : rounds / 2);
    }

    // The objects are made at the first run and filled again by the others.
    bench::Measured listing()
    {
        auto objects = std::make_shared<std::optional<testsupport::RouteArray>>();
        const unsigned routes = mRoutes;
        return [this, objects, routes] {
            unsigned count = 0;
            if (!*objects) {
                require(mSystem.EnumerateRoutes(count, nullptr) == PLUGIN_SUCCESS && count > routes, "counting routes");
                objects->emplace(count);
            }
            return repeated(routes, [&] {
                unsigned given = static_cast<unsigned>((*objects)->size());
                require(mSystem.EnumerateRoutes(given, (*objects)->pointers()) == PLUGIN_SUCCESS, "EnumerateRoutes");
            })();
        };
    }

    unsigned mRoutes = 0;
    RawDump mRaw;
    SystemInterface mSystem;
    SocketInterface mSocketInterface;
    bench::Table mTable{"Routing tables, processor time"};
    bool mWithinLimits = true;
    std::map<unsigned, bench::Medians> mReading;
    std::map<unsigned, bench::Medians> mListing;
};

}  // namespace

// Arguments: other sizes, growing.
int main(int count, char** arguments)
{
    std::vector<unsigned> sizes = {100, 10'000, 100'000, 500'000};
    if (count > 1) sizes.clear();
    for (int i = 1; i < count; ++i)
        sizes.push_back(static_cast<unsigned>(std::stoul(arguments[i])));
    RouteBench bench;
    for (const unsigned routes : sizes) {
        bench.growTo(routes);
        bench.compare();
    }
    if (count == 1) bench.compareGrowth(10'000, 500'000);
    return bench.result();
}
