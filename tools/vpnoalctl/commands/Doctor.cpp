// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl doctor: checks whether a tunnel can be brought up here. One line a check, with the remedy for what is
// missing.
#include "Context.h"
#include "Json.h"
#include "commands/Commands.h"
#include "doctor/Checks.h"

#include "CommandError.h"

namespace vpnoalctl {

namespace {

constexpr Check checks[] = {
    {"plug-in", checkPlugin},
    {"privileges", checkPrivileges},
    {"tunnel device", checkTunDevice},
    {"packet filter", checkFilter},
    {"guard", checkGuard},
    {"preferred interface", checkPreferredInterface},
    {"resolver", checkResolver},
    {"service bus", checkBus},
    {"connection manager", checkConnectionManager},
    {"certificate manager", checkCertificateManager},
    {"logind", checkLogind},
    {"trust store", checkTrustStore},
    {"folder owners", checkFolderOwners},
    {"ip tool", checkIpTool},
    {"undo log", checkUndoLogFolder},
    {"temporary files", checkTemporaryFolder},
};

struct Label {
    const char* word;
    Style style;
};

Label labelFor(Health health)
{
    switch (health) {
    case Health::Ok: return {"ok", Style::Good};
    case Health::Limited: return {"limited", Style::Warning};
    case Health::Unsafe: return {"unsafe", Style::Bad};
    case Health::Missing: break;
    }
    return {"missing", Style::Bad};
}

void addRow(Table& table, bool forMachines, const char* name, const Finding& finding)
{
    const Label label = labelFor(finding.health);
    const std::string firstLine = finding.remedy.substr(0, finding.remedy.find('\n'));
    const std::string behind = firstLine.empty() ? "" : "; " + firstLine;
    table.rows.push_back({{label.word, label.style}, {name}, {forMachines ? finding.detail : finding.detail + behind}});
    if (forMachines) table.rows.back().emplace_back(finding.remedy);
}

// The remedy's further lines.
void printFiles(Output& output, const std::string& remedy)
{
    for (auto end = remedy.find('\n'); end != std::string::npos;) {
        const auto begin = end + 1;
        end = remedy.find('\n', begin);
        output.line(remedy.substr(begin, end == std::string::npos ? end : end - begin));
    }
}

int examine(Context& context)
{
    Table table{{{"state", ""}, {"check", ""}, {"detail", ""}}, {}};
    if (context.output.json()) table.columns.push_back({"remedy", ""});
    bool isUsable = true;
    std::string remedies;
    for (const Check& check : checks) {
        const Finding finding = check.run(context);
        isUsable = isUsable && finding.health != Health::Missing && finding.health != Health::Unsafe;
        addRow(table, context.output.json(), check.name, finding);
        const auto files = finding.remedy.find('\n');
        if (files != std::string::npos) remedies += finding.remedy.substr(files);
    }
    context.output.table(table);
    printFiles(context.output, remedies);
    return isUsable ? ExitOk : ExitFailed;
}

}  // namespace

Action defineDoctor(CLI::App&)
{
    return examine;
}

}  // namespace vpnoalctl
