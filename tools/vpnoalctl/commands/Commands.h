// SPDX-License-Identifier: Apache-2.0
//
// One function a command: declares its options and returns what to run once they are parsed. Options that the action
// reads live in a shared structure that the action captures.
#ifndef VPNOALCTL_COMMANDS_H
#define VPNOALCTL_COMMANDS_H

#include "CommandTable.h"

namespace vpnoalctl {

Action defineApply(CLI::App& options);
Action defineBind(CLI::App& options);
Action defineBusCall(CLI::App& options);
Action defineCertsImport(CLI::App& options);
Action defineCertsList(CLI::App& options);
Action defineCertsRemove(CLI::App& options);
Action defineCertsShow(CLI::App& options);
Action defineCertsSign(CLI::App& options);
Action defineCertsTrust(CLI::App& options);
Action defineConnect(CLI::App& options);
Action defineDoctor(CLI::App& options);
Action defineInfo(CLI::App& options);
Action defineInterfaces(CLI::App& options);
Action defineMonitor(CLI::App& options);
Action definePreferred(CLI::App& options);
Action defineRestore(CLI::App& options);
Action defineRouteDel(CLI::App& options);
Action defineRoutes(CLI::App& options);
Action defineRun(CLI::App& options);
Action defineStatus(CLI::App& options);
Action defineStorageGet(CLI::App& options);
Action defineStorageList(CLI::App& options);
Action defineStorageMap(CLI::App& options);
Action defineStoragePut(CLI::App& options);
Action defineStorageRemove(CLI::App& options);
Action defineStorageStat(CLI::App& options);
Action defineVerify(CLI::App& options);

}  // namespace vpnoalctl

#endif
