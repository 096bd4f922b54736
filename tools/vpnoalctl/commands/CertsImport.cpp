// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl certs import: installs a PKCS#12 bundle through the certificate manager.
#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/ClientHandles.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t largestBundle = std::size_t{1} << 20;

struct Options {
    std::string bundle;
    std::string passwordFile;
};

int import(Context& context, const Options& options)
{
    const Bytes bundle = readWholeFile(options.bundle, largestBundle);
    const std::string password = options.passwordFile.empty() ? "" : readPasswordFile(options.passwordFile);
    // The bus is reached through the event side, which only comes up with a socket or system object.
    const auto eventSide = context.plugin().create<KEST_SocketPlugin>();
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    bool firstFlag = false;
    bool secondFlag = false;
    ClientCertHandle* raw = nullptr;
    try {
        if (certificates->ImportPKCS12(static_cast<unsigned>(bundle.size()), bundle.data(),
                                       options.passwordFile.empty() ? nullptr : password.c_str(), nullptr, firstFlag,
                                       secondFlag, raw) != PLUGIN_SUCCESS) {
            throw CommandError(
                options.bundle, "the bundle was not installed",
                "see whether the certificate manager runs and whether you are root; -v shows its answer");
        }
    } catch (const char* reason) {
        throw CommandError(options.bundle, reason, "give the bundle's password with --password-file");
    }
    const HandlePtr handle(raw, HandleDisposer{certificates.get()});
    const CertificateSummary one = summarize(certificateOf(*handle).get());
    const JsonPtr answer = newObject();
    addText(answer, "subject", one.subject);
    addText(answer, "fingerprint", one.fingerprint);
    context.output.value(answer);
    context.output.line("Installed: " + printable(one.subject), Style::Good);
    return ExitOk;
}

}  // namespace

Action defineCertsImport(CLI::App& command)
{
    auto options = std::make_shared<Options>();
    command.add_option("bundle", options->bundle, "The PKCS#12 file, at most 1 MiB")->required()->type_name("FILE");
    command.add_option("--password-file", options->passwordFile, "File whose first line opens the bundle")
        ->type_name("FILE");
    return [options](Context& context) { return import(context, *options); };
}

}  // namespace vpnoalctl
