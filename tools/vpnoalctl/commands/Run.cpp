// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl run: see run/Runner.h.
#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#include "run/ChangeNotice.h"
#include "run/Configuration.h"
#include "run/GuestCommand.h"
#include "run/Runner.h"

namespace vpnoalctl {

namespace {

struct Words {
    std::vector<std::string> profile;
    std::string signal;
    unsigned killSeconds = 10;  // from the request to end to SIGKILL
    RunOptions options;
};

int runCommand(Context& context, Words& words)
{
    if (words.profile.size() > 1) {
        throw badInput("run", "\"" + words.profile[1] + "\" is one word too many before the command",
                       "write \"--\" between profile and command");
    }
    const std::vector<std::string>& command = context.settings.commandWords;
    if (command.empty()) {
        throw badInput("run", "there is no command", "write it after \"--\": vpnoalctl run [PROFILE] -- COMMAND ...");
    }
    if (!words.signal.empty()) {
        words.options.changeSignal = signalNumber(words.signal);
        if (!words.options.changeSignal) {
            throw badInput("--on-change", "there is no signal " + words.signal, "'kill -l' lists them");
        }
    }
    std::optional<Profile> profile;
    if (!words.profile.empty()) profile = loadProfile(words.profile.front());
    refuseTunnelInUse();
    words.options.what = command.front();
    GuestCommand guest(command, std::chrono::seconds(words.killSeconds));
    return Runner(context, words.options, std::move(profile), guest).run();
}

}  // namespace

Action defineRun(CLI::App& command)
{
    auto words = std::make_shared<Words>();
    RunOptions& options = words->options;
    command
        .add_option("profile", words->profile,
                    "The profile, a name or a JSON file; '-' is standard input; without one the command hands one over")
        ->type_name("PROFILE");
    command
        .add_option("--on-change", words->signal,
                    "Send the command this signal when the network changed, before the device sleeps, and afterwards")
        ->type_name("SIGNAL");
    command
        .add_option("--on-change-exec", options.changeCommand,
                    "Run a shell command for the same; $WFOAL_EVENT is network-changed, suspended or resumed")
        ->type_name("COMMAND");
    command.add_option("--wait", options.waitSeconds, "Seconds to wait for the device to be up with an address (60)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400));
    command
        .add_option("--kill-after", words->killSeconds,
                    "Seconds after which a command that was asked to end is killed (10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    command.footer(
        "\nThe command and its arguments come after \"--\"; {interface} in an argument is replaced by the physical\n"
        "interface. Exit codes: the command's own, 128 and the signal's number when a signal ended it; 1 the tunnel\n"
        "could not be brought up; 2 wrong usage or bad input, nothing was changed; 3 the plug-in could not be loaded.");
    return [words](Context& context) { return runCommand(context, *words); };
}

}  // namespace vpnoalctl
