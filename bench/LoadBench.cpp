// SPDX-License-Identifier: Apache-2.0
//
// What loading takes, in time and in resident memory, each time in a fresh process: the plug-in against its
// dependencies alone, the platform's libraries, the first connection against a warm one, and the services.
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Comparison.h"
#include "Daemons.h"
#include "Require.h"
#include "Shell.h"
#include "TunDevice.h"

namespace {

using bench::require;

const std::string library = WFOAL_BUILD_DIR "/lib/lib";
const std::string plugin = library + "VpnWfOal.so";
const std::string platform =
    library + "VkLogLib.so " + library + "quorservice.so " + library + "powerd.so " + library + "VkNetConfigLib.so ";
const std::string others = "libglib-2.0.so.0 libjson-c.so.5 libssl.so.3 libcrypto.so.3 libmnl.so.0 libsystemd.so.0";

// The numbers that the process prints.
std::vector<double> numbersOf(const std::string& arguments)
{
    std::istringstream text(testsupport::shell(WFOAL_BUILD_DIR "/bin/FreshProcess " + arguments));
    std::vector<double> numbers;
    for (double number = 0; text >> number;)
        numbers.push_back(number);
    require(numbers.size() >= 3, "measuring");
    return numbers;
}

/// The first of its numbers, or another one.
bench::Measured fresh(const std::string& arguments, std::size_t index = 0)
{
    return [arguments, index] { return numbersOf(arguments).at(index); };
}

void compareTimes(bench::Table& table)
{
    const int rounds = 41;
    table.compare("load to the first object, to its dependencies alone", 1.3, fresh("objects " + plugin),
                  fresh("load " + platform + others), rounds);
    table.compare("load libVkNetConfigLib, to its dependencies alone", bench::noLimit,
                  fresh("load " + library + "VkNetConfigLib.so"),
                  fresh("load " + library + "VkLogLib.so libmnl.so.0 libsystemd.so.0"), rounds);
    table.compare("first connection in a fresh process, to a warm one", bench::noLimit, fresh("connect " + plugin),
                  fresh("connect " + plugin, 1), rounds);
}

// The median of several processes: all resident memory that was added, and the private part of it.
void printMemory(bench::Table& table, const std::string& name, const std::string& arguments)
{
    std::vector<double> all, isPrivate;
    for (int i = 0; i < 9; ++i) {
        const std::vector<double> numbers = numbersOf(arguments);
        all.push_back(numbers[numbers.size() - 2]);
        isPrivate.push_back(numbers[numbers.size() - 1]);
    }
    std::sort(all.begin(), all.end());
    std::sort(isPrivate.begin(), isPrivate.end());
    table.memory(name, all[all.size() / 2], isPrivate[isPrivate.size() / 2]);
}

void printService(bench::Table& table, const std::string& name, const std::string& busName)
{
    const testsupport::ChildProcess service({WFOAL_BUILD_DIR "/bin/" + name});
    testsupport::waitForBusName(busName, service);
    std::ifstream file("/proc/" + std::to_string(service.pid()) + "/smaps_rollup");
    double all = 0, isPrivate = 0;
    for (std::string word; file >> word;) {
        double value = 0;
        if (word == "Rss:" && file >> value) all += value;
        if ((word == "Private_Clean:" || word == "Private_Dirty:") && file >> value) isPrivate += value;
    }
    require(all > 0, "reading the memory of a service");
    table.memory(name, all, isPrivate);
}

}  // namespace

int main()
{
    setenv("VKLOG_LEVEL", "3", 1);
    const testsupport::ChildProcess bus = testsupport::startBus();
    testsupport::TunDevice tunnel("norvatun0");
    tunnel.setAddress("10.8.0.2", "10.8.0.1", "255.255.255.0");
    testsupport::addVethPair("eth0", "peer0", "10.0.0.2/24");
    testsupport::shell("ip route add default via 10.0.0.1");

    bench::Table times("Loading, each time in a fresh process");
    compareTimes(times);
    bench::Table memory("Resident memory that is added");
    printMemory(memory, "OpenSSL, GLib, json-c, libmnl, libsystemd", "load " + others);
    printMemory(memory, "the same and the host libraries", "load " + others + " " + platform);
    printMemory(memory, "the same, the plug-in and its four objects", "objects " + plugin);
    printMemory(memory, "libVkLogLib alone", "load " + library + "VkLogLib.so");
    printMemory(memory, "libquorservice alone", "load " + library + "quorservice.so");
    printMemory(memory, "libpowerd alone", "load " + library + "powerd.so");
    printMemory(memory, "libVkNetConfigLib alone", "load " + library + "VkNetConfigLib.so");
    printService(memory, "vesk-connectionmanager", "com.vesk.connectionmanager");
    printService(memory, "vesk-certificatemanager", "com.vesk.certificatemanager");
    return times.result();
}
