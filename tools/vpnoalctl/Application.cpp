// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "CommandError.h"
#include "ErrorObject.h"
#include "Json.h"
#include "Output.h"
#include "completion/Completion.h"
#include "text/Suggest.h"

namespace vpnoalctl {

namespace {

constexpr char description[] =
    "Drives the VPN plug-in from the shell: loads it as an agent would and calls what the command names.";
constexpr char footer[] =
    "\nExit codes: 0 done; 1 the operation failed; 2 wrong usage or bad input, nothing was changed;\n"
    "3 the plug-in could not be loaded. 'vpnoalctl COMMAND --help' explains one command.";

// The log library reads its settings when it is loaded. Errors go to stderr, for a person at a terminal.
// Settings in the caller's environment take precedence.
void setUpLog(int verbosity)
{
    const char* const levels[] = {"3", "6", "7"};
    const bool verbose = verbosity > 0;
    setenv("VKLOG_LEVEL", levels[verbosity > 2 ? 2 : verbosity], verbose ? 1 : 0);
    setenv("VKLOG_TARGET", "stderr", verbose ? 1 : 0);
}

// The variables that change while the plug-in's thread runs exist before it does: then the environment does not move
// while that thread reads it.
void reserveEnvironment()
{
    for (const char* name : {"VKNETCONFIG_BYPASS", "VKNETCONFIG_KEEP", "VKNETCONFIG_TAKE_OVER", "WFOAL_TUN_FD"})
        setenv(name, "", 0);
}

// One line on stderr: for machines an object with "error", "key" and "remedy".
void complain(const CLI::App& app, const Settings& settings, const CommandError& error)
{
    const bool isForMachines = settings.json && !settings.hasPlainErrors;
    tell(isForMachines ? toText(errorObject(error)) : app.get_name() + ": " + error.what());
}

int guarded(const CLI::App& app, const Action& action, Context& context)
{
    try {
        const int code = action(context);
        if (!context.output.flush()) throw CommandError("output", "not everything could be written", "free the disk");
        return code;
    } catch (const CommandError& error) {
        complain(app, context.settings, error);
        return error.exitCode();
    } catch (const std::exception& error) {
        complain(app, context.settings, CommandError(app.get_name(), error.what(), ""));
        return ExitFailed;
    }
}

// The command that the words have led to.
const CLI::App& chosenCommand(const CLI::App& app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? app : chosenCommand(*chosen.front());
}

std::vector<std::string> optionNames(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::App* each = &app; each != nullptr; each = each->get_parent()) {
        for (const CLI::Option* option : each->get_options()) {
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
        }
    }
    return names;
}

// The complaint about the first word that fits nowhere; empty when every word fits.
std::string unknownWord(const CLI::App& app)
{
    const std::vector<std::string> left = app.remaining(true);
    if (left.empty()) return {};
    const std::string& word = left.front();
    const CLI::App& command = chosenCommand(app);
    std::string kind = "there is no option ";
    std::vector<std::string> known;
    if (word.rfind('-', 0) == 0) {
        known = optionNames(command);
    } else {
        kind = "there is no command ";
        for (const CLI::App* inner : command.get_subcommands([](const CLI::App*) { return true; }))
            known.push_back(inner->get_name());
        if (known.empty()) return "nothing is expected where '" + word + "' is";
    }
    const std::string meant = wfoal::nearest(word, known);
    return kind + "'" + word + (meant.empty() ? "'" : "', perhaps '" + meant + "' is meant");
}

// The first word that is neither an option nor the value of one.
std::string commandOf(const std::vector<std::string>& arguments)
{
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--plugin") {
            ++i;
        } else if (arguments[i].rfind('-', 0) != 0) {
            return arguments[i];
        }
    }
    return {};
}

// All words after "--" are the command of `run`. The parser does not see them.
void splitOffCommand(std::vector<std::string>& arguments, Settings& settings)
{
    const auto dashes = std::find(arguments.begin(), arguments.end(), "--");
    if (dashes == arguments.end() || commandOf({arguments.begin(), dashes}) != "run") return;
    settings.commandWords.assign(dashes + 1, arguments.end());
    arguments.erase(dashes, arguments.end());
}

int complainAboutUsage(const CLI::App& app, const Settings& settings, const CLI::ParseError& error)
{
    std::string command = app.get_name();
    for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = chosen.front()->get_subcommands()) {
        command += " " + chosen.front()->get_name();
    }
    const std::string unknown = unknownWord(app);
    complain(app, settings,
             badInput("usage", unknown.empty() ? error.what() : unknown, "see '" + command + " --help'"));
    return ExitUsage;
}

}  // namespace

void defineProgram(CLI::App& app, Settings& settings, std::optional<Action>& chosen)
{
    app.name("vpnoalctl");
    app.description(description);
    app.footer(footer);
    app.set_version_flag("--version", "vpnoalctl " WFOAL_VERSION);
    app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
    addCommonOptions(app, settings);
    app.require_subcommand(1);
    defineCommands(app, chosen);
}

void addCommonOptions(CLI::App& app, Settings& settings)
{
    app.add_option("--plugin", settings.pluginPath, "The plug-in's file; else $WFOAL_PLUGIN, else " WFOAL_SONAME)
        ->type_name("FILE");
    app.add_flag("--json", settings.json, "Print JSON for machines");
    app.add_flag("-v,--verbose", settings.verbosity,
                 "Tell more and show the log on stderr; twice: with debug output, which can hold passwords");
}

int run(int argc, char** argv)
{
    CLI::App app;
    Settings settings;
    std::optional<Action> chosen;
    defineProgram(app, settings, chosen);
    if (argc > 2 && std::string(argv[1]) == completionWord) return printCompletion(app, argv + 2, argc - 2);
    return runProgram(app, settings, chosen, argc, argv);
}

int runProgram(CLI::App& app, Settings& settings, const std::optional<Action>& chosen, int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + std::max(argc, 1));
    splitOffCommand(arguments, settings);
    const bool isForMachines = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    std::reverse(arguments.begin(), arguments.end());  // as the parser wants them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(error);
        settings.json = isForMachines;  // where parsing failed may be before or after it
        return complainAboutUsage(app, settings, error);
    }
    settings.showLog = settings.verbosity > 0 || std::getenv("VKLOG_LEVEL") != nullptr;
    setUpLog(settings.verbosity);
    reserveEnvironment();
    Output output(stdout, settings.json);
    Context context(settings, output);
    return guarded(app, *chosen, context);
}

int runMain(const char* program, int (*body)(int argc, char** argv), int argc, char** argv) noexcept
{
    try {
        return body(argc, argv);
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "%s: %s\n", program, error.what()));
        return ExitFailed;
    }
}

}  // namespace vpnoalctl
