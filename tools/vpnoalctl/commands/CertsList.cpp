// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl certs list and show: the user's certificates.
#include <openssl/pem.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/ClientHandles.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t shownFingerprint = 16;

int list(Context& context)
{
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    Table table{
        {{"number", "NUMBER"}, {"subject", "SUBJECT"}, {"notAfter", "VALID UNTIL"}, {"fingerprint", "FINGERPRINT"}},
        {}};
    int number = 0;
    for (const HandlePtr& handle : listHandles(*certificates)) {
        const CertificateSummary one = summarize(certificateOf(*handle).get());
        const std::string fingerprint =
            context.output.json() ? one.fingerprint : one.fingerprint.substr(0, shownFingerprint);
        table.rows.push_back({{++number}, {printable(one.subject)}, {one.notAfter}, {fingerprint}});
    }
    if (number == 0) context.output.line("No client certificates; 'vpnoalctl certs import' installs one.");
    if (number > 0 || context.output.json()) context.output.table(table);
    return ExitOk;
}

std::string pemOf(X509* certificate)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(text.get(), certificate);
    char* data = nullptr;
    const long length = BIO_get_mem_data(text.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

int show(Context& context, const std::string& choice)
{
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    const HandlePtr handle = chooseHandle(listHandles(*certificates), choice);
    const X509Ptr certificate = certificateOf(*handle);
    const CertificateSummary one = summarize(certificate.get());
    const std::string pem = pemOf(certificate.get());
    const std::pair<const char*, std::string> facts[] = {{"subject", one.subject},
                                                         {"issuer", one.issuer},
                                                         {"notBefore", one.notBefore},
                                                         {"notAfter", one.notAfter},
                                                         {"fingerprint", one.fingerprint}};
    if (context.output.json()) {
        const JsonPtr answer = newObject();
        for (const auto& [key, value] : facts)
            addText(answer, key, value);
        addText(answer, "pem", pem);
        context.output.value(answer);
        return ExitOk;
    }
    Table table{{{"what", ""}, {"value", ""}}, {}};
    for (const auto& [key, value] : facts)
        table.rows.push_back({{key, Style::Title}, {printable(value)}});
    context.output.table(table);
    context.output.line(pem.substr(0, pem.size() - 1));
    return ExitOk;
}

}  // namespace

Action defineCertsList(CLI::App&)
{
    return list;
}

Action defineCertsShow(CLI::App& command)
{
    auto choice = std::make_shared<std::string>();
    command
        .add_option("certificate", *choice,
                    "Its common name, its number in the list, or the beginning of its fingerprint")
        ->required()
        ->type_name("CHOICE");
    return [choice](Context& context) { return show(context, *choice); };
}

}  // namespace vpnoalctl
