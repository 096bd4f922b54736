// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl verify: the plug-in's verdict on a server's certificate, with the reason and the chain.
#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/ChainExplanation.h"
#include "certificates/ServerVerdict.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

struct Options {
    std::string certificate;
    std::string name;
    std::vector<std::string> intermediates;
};

struct Verdict {
    const char* sentence;
    Style style;
    int exitCode;
};

Verdict describe(ServerVerdict verdict)
{
    switch (verdict) {
    case ServerVerdict::Accept: return {"accept without asking", Style::Good, ExitOk};
    case ServerVerdict::Ask: return {"ask the user", Style::Warning, ExitAskUser};
    case ServerVerdict::Refuse: break;
    }
    return {"refuse", Style::Bad, ExitRefused};
}

void printForMachines(Output& output, ServerVerdict verdict, const ChainExplanation& explanation)
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
    addText(answer, "verdict", wordFor(verdict));
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
    const ServerVerdict verdict = judgeServer(*certificates, server, intermediates, options.name);
    const Verdict described = describe(verdict);
    Output& output = context.output;
    output.json() ? printForMachines(output, verdict, explanation) : printForPeople(output, described, explanation);
    return described.exitCode;
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
    command.footer("Exit code: 0 accept, 5 refuse, 4 ask the user, 2 unusable input.");
    return [options](Context& context) { return verify(context, *options); };
}

}  // namespace vpnoalctl
