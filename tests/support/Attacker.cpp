// SPDX-License-Identifier: Apache-2.0
#include "Attacker.h"

#include <algorithm>
#include <stdexcept>

#include "Isolation.h"

namespace testsupport {

namespace {

constexpr char script[] = WFOAL_SOURCE_DIR "/tests/support/forge-signal.sh";

std::string uniqueNames()
{
    std::string names;
    for (const std::string& name : namesOnBus()) {
        if (name.front() == ':') names += name + " ";
    }
    return names;
}

}  // namespace

std::string attackerUnavailable()
{
    return isInUserNamespace() ? "a user namespace with one user has no other user to attack as" : "";
}

std::vector<std::string> asOrdinaryUser(const std::vector<std::string>& command)
{
    std::vector<std::string> whole{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    whole.insert(whole.end(), command.begin(), command.end());
    return whole;
}

// busctl prints: as 3 "org.freedesktop.DBus" ":1.1" ":1.0"
std::vector<std::string> namesOnBus()
{
    const CommandResult list =
        runCommand({"busctl", "--system", "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ListNames"});
    if (list.status != 0) throw std::runtime_error("ListNames: " + list.output);
    std::vector<std::string> names;
    std::size_t begin = list.output.find('"');
    while (begin != std::string::npos) {
        const std::size_t end = list.output.find('"', begin + 1);
        names.push_back(list.output.substr(begin + 1, end - begin - 1));
        begin = list.output.find('"', end + 1);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void sendForgedSignal(const std::string& path, const std::string& member, const std::vector<std::string>& arguments)
{
    std::vector<std::string> command = asOrdinaryUser({script, uniqueNames(), path, member});
    command.insert(command.end(), arguments.begin(), arguments.end());
    const CommandResult result = runCommand(command);
    if (result.status != 0) throw std::runtime_error("forging " + member + ": " + result.output);
}

void forgeNameOwnerChanges(const std::string& newOwner)
{
    for (const std::string& name : namesOnBus()) {
        if (name == "org.freedesktop.DBus") continue;
        sendForgedSignal("/org/freedesktop/DBus", "org.freedesktop.DBus.NameOwnerChanged",
                         {"string:" + name, "string:" + name, "string:" + newOwner});
    }
}

}  // namespace testsupport
