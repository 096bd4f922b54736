// SPDX-License-Identifier: Apache-2.0
//
// How operations that take lists grow from 1,000 to 100,000 elements: processor time, and memory per element. Each
// measurement runs in a process of its own.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <string>

#include "Apart.h"
#include "Comparison.h"
#include "Decisions/RouteParser.h"
#include "RouteMessages.h"
#include "firewall/FirewallRequest.h"
#include "interface/InterfaceRequest.h"
#include "undolog/InterfaceRecord.h"

namespace {

using bench::require;

constexpr unsigned sizes[] = {1'000, 3'000, 10'000, 30'000, 100'000};
constexpr double exponentLimit = 1.05;

// What is allocated now, and what was at most. There is one thread.
long sBytes = 0;
long sMostBytes = 0;

void* counted(void* block)
{
    sBytes += static_cast<long>(malloc_usable_size(block));
    sMostBytes = std::max(sMostBytes, sBytes);
    return block;
}

}  // namespace

extern "C" {

// The C library's own names of its functions.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size)
{
    return counted(__libc_malloc(size));
}

void* calloc(std::size_t count, std::size_t size)
{
    return counted(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size)
{
    sBytes -= static_cast<long>(malloc_usable_size(block));
    return counted(__libc_realloc(block, size));
}

void free(void* block)
{
    sBytes -= static_cast<long>(malloc_usable_size(block));
    __libc_free(block);
}

}  // extern "C"

namespace {

std::string network(unsigned number)
{
    return "20." + std::to_string(number >> 8 & 255) + "." + std::to_string(number & 255) + "." +
           std::to_string(number >> 16 << 4);
}

double processorSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

struct Cost {
    double seconds;
    double bytes;  // at most at one time, above what was allocated before
};

/// An operation on a list of `size` elements, which is made beforehand.
using MakeOperation = std::function<std::function<void()>(unsigned size)>;

Cost measure(const MakeOperation& make, unsigned size)
{
    const std::function<void()> run = make(size);
    const long before = sMostBytes = sBytes;
    run();
    const auto bytes = static_cast<double>(sMostBytes - before);
    double least = 1e9;
    for (unsigned round = 0; round < 7; ++round) {
        const unsigned times = 200'000 / size;
        const double begin = processorSeconds();
        for (unsigned i = 0; i < times; ++i)
            run();
        least = std::min(least, (processorSeconds() - begin) / times);
    }
    return {least, bytes};
}

void run(bench::Table& table, const std::string& name, double bytesLimit, const MakeOperation& make)
{
    std::map<unsigned, double> seconds;
    Cost last{};
    for (const unsigned size : sizes) {
        last = bench::apart<Cost>([&] { return measure(make, size); });
        seconds[size] = last.seconds;
    }
    table.growth(name, exponentLimit, seconds);
    table.ratio(name + ": bytes per element", bytesLimit, last.bytes / sizes[std::size(sizes) - 1]);
}

std::string interfaceRequest(unsigned routes)
{
    std::string text = R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[)";
    for (unsigned number = 0; number < routes; ++number) {
        text += number == 0 ? "" : ",";
        text += R"({"ip":")" + network(number) + R"(","netmask":"255.255.255.240","gateway":"10.8.0.1","metric":5})";
    }
    return text + "]}}";
}

std::string filterRequest(unsigned rules)
{
    std::string text = R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[)";
    for (unsigned number = 0; number < rules; ++number) {
        text += number == 0 ? "" : ",";
        text += R"({"operation":"append","source":"10.0.0.0\/255.0.0.0","destination":")" + network(number) +
                R"(\/255.255.255.240","protocol":"TCP","destinationPort":443,"jumpTo":"ACCEPT"})";
    }
    return text + "]}";
}

std::string dump(unsigned routes)
{
    std::string bytes;
    for (unsigned number = 0; number < routes; ++number) {
        bytes += testsupport::routeMessage(testsupport::routeHeader(28),
                                           testsupport::attribute(RTA_DST, testsupport::bytesOf(number)) +
                                               testsupport::attribute(RTA_OIF, testsupport::bytesOf(3U)));
    }
    return bytes;
}

std::function<void()> parseRoutes(unsigned size)
{
    return [bytes = dump(size), size] {
        unsigned count = 0;
        for (wfoal::MessageWalk walk(bytes.data(), bytes.size()); walk.valid(); walk.next()) {
            RouteInfo route{};
            wfoal::parseRouteMessage(walk.message(), walk.header().nlmsg_len, route);
            count += route.oifIndex == 3;
        }
        require(count == size, "parsing routes");
    };
}

std::function<void()> readInterfaceRequest(unsigned size)
{
    return [text = interfaceRequest(size), size] {
        require(vknetconfig::parseInterfaceRequest(text.c_str()).routes.size() == size, "reading a request");
    };
}

std::function<void()> readFilterRequest(unsigned size)
{
    return [text = filterRequest(size), size] {
        require(vknetconfig::parseFirewallRequest(text.c_str()).rules.size() == size, "reading a filter");
    };
}

wfoal::InterfaceRecord recordOf(unsigned size)
{
    wfoal::InterfaceRecord record;
    record.index = 3;
    record.name = "vpn0";
    record.routes = vknetconfig::parseInterfaceRequest(interfaceRequest(size).c_str()).routes;
    return record;
}

std::function<void()> writeRecord(unsigned size)
{
    return [record = recordOf(size)] { require(!record.encode().empty(), "writing an entry"); };
}

std::function<void()> readRecord(unsigned size)
{
    return [text = recordOf(size).encode(), size] {
        require(wfoal::InterfaceRecord::decode(text).routes.size() == size, "reading an entry");
    };
}

}  // namespace

int main()
{
    bench::Table table("Growth from 1,000 to 100,000 elements, processor time");
    run(table, "parse a dump of routes", 0, parseRoutes);
    run(table, "read a request of routes", 1000, readInterfaceRequest);
    run(table, "read a request of filter rules", 1000, readFilterRequest);
    run(table, "write an entry of the undo log", 200, writeRecord);
    run(table, "read an entry of the undo log", 200, readRecord);
    return table.result();
}
