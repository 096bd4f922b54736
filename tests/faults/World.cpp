// SPDX-License-Identifier: Apache-2.0
#include "World.h"

#include <fstream>

#include "KernelState.h"

namespace faults {

namespace {

using testsupport::Daemon;

constexpr char separator[] = "---\n";

std::string withoutTable(const std::string& ruleset, const std::string& label)
{
    const std::size_t begin = ruleset.find("table inet " + label + " {");
    if (begin == std::string::npos) return ruleset;
    const std::size_t end = ruleset.find("\n}\n", begin);
    return ruleset.substr(0, begin) + ruleset.substr(end == std::string::npos ? ruleset.size() : end + 3);
}

}  // namespace

DnsWorld::DnsWorld() : mBus(testsupport::startBus())
{
    if (testsupport::daemonUnavailable(Daemon::resolved).empty())
        mResolved = testsupport::startDaemon(Daemon::resolved);
}

NetworkState NetworkState::now(bool hasResolved)
{
    // As few processes as can be: this is what most of the sweep's time goes to. Each request takes the lock "turn"
    // anew; it says nothing about what is installed.
    static const std::string resolver =
        hasResolved ? testsupport::daemonTool("resolvectl") + " --no-pager status" : "true";
    static const std::string command =
        "printf 'link\naddress\nroute show table all\nrule\n' | ip -d -4 -batch -; ip -d -6 route show table all; "
        "echo ---; nft list ruleset; echo ---; " +
        resolver + "; echo ---; for f in /run/vknetconfig/*; do case $f in */turn|*\\*) ;; *) echo $f ;; esac; done";
    const std::string output = testsupport::outputOf(command);
    NetworkState state;
    std::string* const parts[] = {&state.links, &state.filter, &state.dns, &state.undoLog};
    std::size_t begin = 0;
    for (std::string* part : parts) {
        const std::size_t end = output.find(separator, begin);
        *part = output.substr(begin, end - begin);
        begin = end == std::string::npos ? output.size() : end + sizeof separator - 1;
    }
    return state;
}

bool NetworkState::operator==(const NetworkState& other) const
{
    return links == other.links && filter == other.filter && dns == other.dns && undoLog == other.undoLog;
}

bool NetworkState::isSameButFilter(const NetworkState& other, const std::string& label) const
{
    return links == other.links && dns == other.dns && withoutTable(filter, label) == withoutTable(other.filter, label);
}

std::string NetworkState::differenceTo(const NetworkState& other) const
{
    std::ofstream("/tmp/one") << links << filter << dns << undoLog;
    std::ofstream("/tmp/other") << other.links << other.filter << other.dns << other.undoLog;
    return testsupport::outputOf("diff /tmp/other /tmp/one | head -12");
}

}  // namespace faults
