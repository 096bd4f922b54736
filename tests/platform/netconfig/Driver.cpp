// SPDX-License-Identifier: Apache-2.0
#include "Driver.h"

#include <fstream>
#include <sstream>

#include "KernelState.h"

namespace testsupport {

namespace {

constexpr char systemCalls[] =
    "mkdir,openat,?fcntl,?fcntl64,?ftruncate,?ftruncate64,pwrite64,write,fsync,renameat,unlinkat,socket,sendto,sendmsg,"
    "recvmsg";

}  // namespace

std::string driver(const std::string& steps)
{
    return "env VKLOG_TARGET=stderr " WFOAL_BUILD_DIR "/bin/netconfigDriver " + steps;
}

std::string driverUnderStrace(const std::string& options, const std::string& steps)
{
    return "ASAN_OPTIONS=detect_leaks=0 strace -f -qq " + options + " " + driver(steps);
}

std::string tracedCall(const std::string& call)
{
    return call == "fcntl" || call == "ftruncate" ? "?" + call + ",?" + call + "64" : call;
}

bool hasStrace()
{
    return outputOf("strace -V").find("version") != std::string::npos;
}

std::map<std::string, int> callsOf(const std::string& steps)
{
    run(driverUnderStrace("-o /tmp/calls -e trace=" + std::string(systemCalls), steps));
    std::map<std::string, int> counts;
    std::ifstream trace("/tmp/calls");
    for (std::string line; std::getline(trace, line);) {
        if (line.find(".gcda\"") != std::string::npos) break;  // a build with counters writes them when all is done
        std::istringstream words(line);
        std::string process, call;
        words >> process >> call;
        const std::size_t end = call.find('(');
        if (end == std::string::npos) continue;
        call.resize(end);
        if (call == "fcntl64" || call == "ftruncate64") call.resize(end - 2);
        ++counts[call];
    }
    return counts;
}

void killBefore(const std::string& call, int number, const std::string& steps)
{
    outputOf(driverUnderStrace("-o /dev/null -e trace=" + tracedCall(call) + " -e inject=" + tracedCall(call) +
                                   ":signal=KILL:when=" + std::to_string(number),
                               steps));
}

}  // namespace testsupport
