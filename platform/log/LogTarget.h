// SPDX-License-Identifier: Apache-2.0
//
// Writes messages to journald, syslog or stderr.
#ifndef VKLOG_LOGTARGET_H
#define VKLOG_LOGTARGET_H

#include <cstdarg>

namespace vklog {

/// Writes one message to the log of this machine under the ident `name`. A message that no daemon takes goes to
/// stderr. One that journald is too slow for is dropped and counted. Thread-safe. Throws std::bad_alloc only.
void print(const char* name, int level, const char* format, va_list values) __attribute__((format(printf, 3, 0)));

}  // namespace vklog

#endif
