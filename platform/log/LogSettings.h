// SPDX-License-Identifier: Apache-2.0
//
// Settings of the log from the environment.
#ifndef VKLOG_LOGSETTINGS_H
#define VKLOG_LOGSETTINGS_H

namespace vklog {

/// VKLOG_LEVEL: 0 to 7; 6 when it is not set or not valid.
int levelFromEnvironment();

/// VKLOG_TARGET=stderr.
bool stderrRequested();

}  // namespace vklog

#endif
