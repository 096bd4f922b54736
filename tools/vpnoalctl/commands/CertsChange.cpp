// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl certs rm and trust: changes the folders that the plug-in reads certificates from.
#include <openssl/x509v3.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/CertificateFolder.h"
#include "certificates/ClientHandles.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

struct TrustOptions {
    std::string file;
    bool isRemoved = false;
    bool isForced = false;
};

// What was done to which certificate.
void report(Context& context, const char* done, X509* certificate)
{
    const CertificateSummary one = summarize(certificate);
    const JsonPtr answer = newObject();
    addText(answer, "state", done);
    addText(answer, "subject", one.subject);
    addText(answer, "fingerprint", one.fingerprint);
    context.output.value(answer);
    context.output.line(printable(one.subject) + ": " + done + ".", Style::Good);
}

int removeCertificate(Context& context, const std::string& choice)
{
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    const HandlePtr handle = chooseHandle(listHandles(*certificates), choice);
    const X509Ptr certificate = certificateOf(*handle);
    removeClient(certificate.get());
    report(context, "removed with its key", certificate.get());
    return ExitOk;
}

int listTrusted(Context& context)
{
    Table table{{{"file", "FILE"}, {"subject", "SUBJECT"}, {"notAfter", "VALID UNTIL"}, {"fingerprint", "FINGERPRINT"}},
                {}};
    constexpr std::size_t shown = 16;
    for (const StoredCertificate& stored : certificatesIn(trustedFolder)) {
        const CertificateSummary one = summarize(stored.certificate.get());
        table.rows.push_back({{printable(stored.name)},
                              {printable(one.subject)},
                              {one.notAfter},
                              {context.output.json() ? one.fingerprint : one.fingerprint.substr(0, shown)}});
    }
    if (table.rows.empty()) context.output.line("No gateway is trusted; 'vpnoalctl certs trust FILE' installs a root.");
    if (!table.rows.empty() || context.output.json()) context.output.table(table);
    return ExitOk;
}

// A gateway's own certificate in the folder lets others imitate its subject.
void checkIsAuthority(X509* certificate, const std::string& file)
{
    if (X509_check_ca(certificate) != 0) return;
    throw badInput(file, "is no certificate of an authority",
                   "install the root that issued the gateway's certificate; --force installs it all the same");
}

int trust(Context& context, const TrustOptions& options)
{
    if (options.file.empty()) {
        if (options.isRemoved || options.isForced) throw badInput("--remove, --force", "need a FILE");
        return listTrusted(context);
    }
    const X509Ptr certificate = parseCertificate(loadCertificate(options.file), options.file);
    if (options.isRemoved) {
        if (!removeTrusted(certificate.get()))
            throw CommandError(options.file, "is not among the trusted certificates",
                               "'vpnoalctl certs trust' lists them");
        report(context, "no longer trusted", certificate.get());
        return ExitOk;
    }
    if (!options.isForced) checkIsAuthority(certificate.get(), options.file);
    report(context, installTrusted(certificate.get()) ? "trusted" : "trusted already", certificate.get());
    return ExitOk;
}

}  // namespace

Action defineCertsRemove(CLI::App& command)
{
    auto choice = std::make_shared<std::string>();
    command
        .add_option("certificate", *choice,
                    "Its common name, its number in the list, or the beginning of its fingerprint")
        ->required()
        ->type_name("CHOICE");
    return [choice](Context& context) { return removeCertificate(context, *choice); };
}

Action defineCertsTrust(CLI::App& command)
{
    auto options = std::make_shared<TrustOptions>();
    command
        .add_option("file", options->file, "The root's certificate, PEM or DER; without it the trusted ones are listed")
        ->type_name("FILE");
    command.add_flag("--remove", options->isRemoved, "Trust it no longer");
    command.add_flag("--force", options->isForced, "Install it although it is no certificate of an authority");
    return [options](Context& context) { return trust(context, *options); };
}

}  // namespace vpnoalctl
