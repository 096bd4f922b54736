// SPDX-License-Identifier: Apache-2.0
#include "wireguard/Tools.h"

#include <fmt/format.h>

#include <chrono>
#include <system_error>

#include "CommandError.h"
#include "config/TunnelPlan.h"
#include "process/Subprocess.h"
#include "tunnel/TunDevice.h"

namespace vpnoalwg {

namespace {

using wfoal::Subprocess;
using wfoal::SubprocessResult;

constexpr std::chrono::seconds toolLimit{30};
constexpr std::chrono::seconds commandLimit{90};

}  // namespace

void runTool(const std::vector<std::string>& command, const std::string& input)
{
    const SubprocessResult result = wfoal::runSubprocess(command, input, toolLimit);
    if (result.succeeded()) return;
    throw vpnoalctl::CommandError(fmt::format("{}", fmt::join(command, " ")), result.reason(),
                                  result.outcome == SubprocessResult::Outcome::NotStarted
                                      ? "install it: the packages iproute2 and wireguard-tools bring ip and wg"
                                      : "correct the configuration, or try again");
}

void runCommands(const char* key, const std::vector<std::string>& commands)
{
    for (std::size_t i = 0; i < commands.size(); ++i) {
        const std::string what = fmt::format("{}, command {}", key, i + 1);
        const std::string command = commandFor(commands[i], vpnoalctl::tunnelDeviceName);
        try {
            Subprocess process({wfoal::findProgram("bash"), "-c", command}, Subprocess::Sharing::All, {});
            const auto ended = process.wait(commandLimit);
            if (!ended) throw vpnoalctl::CommandError(what, "still runs after 90 seconds", "correct the command");
            if (!ended->succeeded()) throw vpnoalctl::CommandError(what, ended->reason(), "correct the command");
        } catch (const std::system_error& error) {
            throw vpnoalctl::systemError("bash", error.code().value(), "the commands of the configuration need it");
        }
    }
}

}  // namespace vpnoalwg
