// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl doctor: whether a tunnel can be brought up here, one line a check, with the remedy where something lacks.
#include "Context.h"
#include "Json.h"
#include "commands/Commands.h"
#include "doctor/Checks.h"

#include "CommandError.h"

namespace vpnoalctl {

namespace {

constexpr Check checks[] = {
    {"plug-in", lookAtPlugin},       {"privileges", lookAtPrivileges}, {"tunnel device", lookAtTunDevice},
    {"packet filter", lookAtFilter}, {"resolver", lookAtResolver},     {"service bus", lookAtBus},
    {"ip tool", lookAtIpTool},       {"journal", lookAtJournalFolder}, {"temporary files", lookAtTemporaryFolder},
};

struct Look {
    const char* word;
    Style style;
};

Look lookOf(Health health)
{
    switch (health) {
    case Health::Ok: return {"ok", Style::Good};
    case Health::Limited: return {"limited", Style::Warning};
    case Health::Missing: break;
    }
    return {"missing", Style::Bad};
}

void enter(Table& table, bool forMachines, const char* name, const Finding& finding)
{
    const Look look = lookOf(finding.health);
    const std::string behind = finding.remedy.empty() ? "" : "; " + finding.remedy;
    table.rows.push_back({{look.word, look.style}, {name}, {forMachines ? finding.detail : finding.detail + behind}});
    if (forMachines) table.rows.back().emplace_back(finding.remedy);
}

int examine(Context& context)
{
    Table table{{{"state", ""}, {"check", ""}, {"detail", ""}}, {}};
    if (context.output.json()) table.columns.push_back({"remedy", ""});
    bool isUsable = true;
    for (const Check& check : checks) {
        const Finding finding = check.look(context);
        isUsable = isUsable && finding.health != Health::Missing;
        enter(table, context.output.json(), check.name, finding);
    }
    context.output.table(table);
    return isUsable ? ExitOk : ExitFailed;
}

}  // namespace

Action defineDoctor(CLI::App&)
{
    return examine;
}

}  // namespace vpnoalctl
