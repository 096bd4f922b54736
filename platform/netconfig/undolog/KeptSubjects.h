// SPDX-License-Identifier: Apache-2.0
//
// Subjects of the undo log that the agent is about to replace. Until then nothing removes them: not the clean-up of
// requests for other subjects, and not a removal. The agent names them in VKNETCONFIG_KEEP, with commas between, for as
// long as a request works. When it ends, or replaces them, they are like all others.
#ifndef VKNETCONFIG_KEPTSUBJECTS_H
#define VKNETCONFIG_KEPTSUBJECTS_H

#include <string>
#include <string_view>

namespace vknetconfig {

bool isKept(std::string_view subject);

/// The same for a removal, which the log then tells. The plug-in removes before it installs.
bool isLeftToReplacement(const std::string& subject);

}  // namespace vknetconfig

#endif
