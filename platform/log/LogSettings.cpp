// SPDX-License-Identifier: Apache-2.0
#include "LogSettings.h"

#include <cstdlib>
#include <cstring>

namespace vklog {

int levelFromEnvironment()
{
    constexpr int standard = 6;
    const char* text = std::getenv("VKLOG_LEVEL");
    if (text == nullptr || text[0] < '0' || text[0] > '7' || text[1] != '\0') return standard;
    return text[0] - '0';
}

bool stderrRequested()
{
    const char* target = std::getenv("VKLOG_TARGET");
    return target != nullptr && std::strcmp(target, "stderr") == 0;
}

}  // namespace vklog
