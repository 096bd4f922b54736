// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl verify: what the plug-in makes of a server's certificate, with the reason and the chain.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/ChainExplanation.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string certificate;
    std::string name;
    std::vector<std::string> intermediates;
};

struct Verdict {
    const char* word;
    const char* sentence;
    Style style;
    int exitCode;
};

constexpr Verdict accepted{"accept", "accept without asking", Style::Good, ExitOk};
constexpr Verdict asking{"ask", "ask the user", Style::Warning, ExitAskUser};
constexpr Verdict refused{"refuse", "refuse", Style::Bad, ExitFailed};

Verdict judge(KEST_CertPlugin& certificates, const Bytes& server, const std::vector<Bytes>& intermediates,
              const std::string& name)
{
    for (const Bytes& der : intermediates) {
        certificates.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
    }
    bool promptUser = false;
    const PluginResult result = certificates.VerifyServerCertificate(
        server.data(), static_cast<unsigned>(server.size()), name.empty() ? nullptr : name.c_str(), promptUser);
    if (result != PLUGIN_SUCCESS) return refused;
    return promptUser ? asking : accepted;
}

// The chain's reason is not the whole story of a verdict: dates, store and name count where the chain fails.
std::string reasonOf(const ChainExplanation& explanation)
{
    if (explanation.error == 0) return explanation.reason;
    return explanation.reason + " (" + std::to_string(explanation.error) + ", at depth " +
           std::to_string(explanation.depth) + ")";
}

void printForMachines(Output& output, const Verdict& verdict, const ChainExplanation& explanation)
{
    JsonPtr chain = newArray();
    for (const CertificateSummary& one : explanation.chain) {
        JsonPtr entry = newObject();
        addText(entry, "subject", one.subject);
        addText(entry, "issuer", one.issuer);
        addText(entry, "notBefore", one.notBefore);
        addText(entry, "notAfter", one.notAfter);
        addText(entry, "fingerprint", one.fingerprint);
        append(chain, std::move(entry));
    }
    const JsonPtr answer = newObject();
    addText(answer, "verdict", verdict.word);
    addText(answer, "reason", explanation.reason);
    addNumber(answer, "error", explanation.error);
    addNumber(answer, "depth", explanation.depth);
    addChild(answer, "chain", std::move(chain));
    output.value(answer);
}

void printForPeople(Output& output, const Verdict& verdict, const ChainExplanation& explanation)
{
    Table table{{{"what", ""}, {"value", ""}}, {}};
    table.rows.push_back({{"verdict", Style::Title}, {verdict.sentence, verdict.style}});
    table.rows.push_back({{"chain", Style::Title}, {printable(reasonOf(explanation))}});
    for (std::size_t depth = 0; depth < explanation.chain.size(); ++depth) {
        const CertificateSummary& one = explanation.chain[depth];
        table.rows.push_back({{"  " + std::to_string(depth), Style::Title},
                              {printable(one.subject + ", " + one.notBefore + " to " + one.notAfter)}});
    }
    output.table(table);
}

int verify(Context& context, const Options& options)
{
    const Bytes server = loadCertificate(options.certificate);
    std::vector<Bytes> intermediates;
    for (const std::string& path : options.intermediates)
        intermediates.push_back(loadCertificate(path));
    const ChainExplanation explanation = explainChain(server, intermediates);
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    const Verdict verdict = judge(*certificates, server, intermediates, options.name);
    Output& output = context.output;
    output.json() ? printForMachines(output, verdict, explanation) : printForPeople(output, verdict, explanation);
    return verdict.exitCode;
}

}  // namespace

Action defineVerify(CLI::App& command)
{
    auto options = std::make_shared<Options>();
    command.add_option("certificate", options->certificate, "The server's certificate, PEM or DER")
        ->required()
        ->type_name("CERT");
    command.add_option("--name", options->name, "What the user calls the server")->type_name("NAME");
    command.add_option("--intermediate", options->intermediates, "A certificate that the server sent with it")
        ->type_name("FILE");
    command.footer("Exit code: 0 accept, 1 refuse, 4 ask the user, 2 unusable input.");
    return [options](Context& context) { return verify(context, *options); };
}

}  // namespace vpnoalctl
