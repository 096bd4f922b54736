// SPDX-License-Identifier: Apache-2.0
//
// vpnoalconform: tries what the four libraries of a platform promise to the plug-in. For whoever ports it to a device.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Report.h"
#include "Selection.h"
#include "Trial.h"

namespace {

using namespace conformance;

enum ExitCode { ExitConforms = 0, ExitBroken = 1, ExitUsage = 2, ExitFailed = 3 };

constexpr char description[] =
    "Tries what the four platform libraries promise in their headers, each promise in a process of its own.";
constexpr char footer[] =
    "\nWithout --interface nothing of the device's network is changed. With it, run this where that does no harm.\n"
    "Exit codes: 0 no promise is broken; 1 some are; 2 wrong usage; 3 the system refused what this program needs.";

// Header and library of each interface.
constexpr const char* libraries[][2] = {{"VkLogLib.h", "libVkLogLib"},
                                        {"VkNetConfigLib.h", "libVkNetConfigLib"},
                                        {"powerd.h", "libpowerd"},
                                        {"quorservice.h", "libquorservice"}};

/// The library with the major version in its name, as the plug-in loads it; else without.
std::string fileOf(const std::string& folder, const std::string& library)
{
    std::string versioned = library + ".so.0";
    if (folder.empty()) return versioned;
    const std::filesystem::path inFolder = std::filesystem::absolute(folder);
    return std::filesystem::exists(inFolder / versioned) ? inFolder / versioned : inFolder / (library + ".so");
}

int list(const std::vector<const Promise*>& promises)
{
    for (const Promise* promise : promises)
        std::printf("%-16s %s\n", promise->header, promise->text);
    return ExitConforms;
}

int tryAll(const std::vector<const Promise*>& promises, const Settings& settings, Report& report)
{
    for (const Promise* promise : promises)
        report.add(*promise, tryPromise(*promise, settings));
    report.finish();
    return report.conforms() ? ExitConforms : ExitBroken;
}

int refuseSelection(const std::string& only)
{
    const std::string meant = suggestSelection(only);
    static_cast<void>(std::fprintf(
        stderr, "vpnoalconform: --only: no promise is of the header or has the words '%s'%s%s%s\n", only.c_str(),
        meant.empty() ? "" : "; did you mean '", meant.c_str(), meant.empty() ? "; --list prints all" : "'?"));
    return ExitUsage;
}

int run(int argc, char** argv)
{
    CLI::App app(description, "vpnoalconform");
    Settings settings;
    settings.serviceName = "com.vesk.conformance";
    std::string folder;
    std::string only;
    bool json = false;
    bool tap = false;
    bool isList = false;
    app.footer(footer);
    app.set_version_flag("--version", "vpnoalconform " WFOAL_VERSION);
    app.add_option("FOLDER", folder, "Where the libraries are; else where the loader looks")
        ->check(CLI::ExistingDirectory);
    for (const auto& [header, library] : libraries)
        app.add_option(std::string("--") + library, settings.libraries[header], "File of this library");
    app.add_option("--interface", settings.interfaceName,
                   "An interface that may be configured, for example a tun device");
    app.add_option("--service", settings.serviceName, "A bus name that this program may have")->capture_default_str();
    app.add_option("--only", only, "Only the promises of this header, or with these words");
    app.add_option("--seconds", settings.secondsAtMost, "How long one promise may take")->capture_default_str();
    app.add_flag("--list", isList, "Print the promises, and try none");
    CLI::Option* const jsonFlag = app.add_flag("--json", json, "Print JSON for machines");
    app.add_flag("--tap", tap, "Print lines of the Test Anything Protocol")->excludes(jsonFlag);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitConforms : ExitUsage;
    }
    for (const auto& [header, library] : libraries) {
        if (settings.libraries[header].empty()) settings.libraries[header] = fileOf(folder, library);
    }
    const std::vector<const Promise*> promises = selectPromises(only);
    if (promises.empty()) return refuseSelection(only);
    if (isList) return list(promises);
    const std::unique_ptr<Report> report = json  ? makeJsonReport()
                                           : tap ? makeTapReport(promises.size())
                                                 : makeTextReport();
    return tryAll(promises, settings, *report);
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "vpnoalconform: %s\n", error.what()));
        return ExitFailed;
    }
}
