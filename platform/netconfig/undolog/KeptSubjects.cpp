// SPDX-License-Identifier: Apache-2.0
#include "undolog/KeptSubjects.h"

#include <cstdlib>

#include "Log.h"

namespace vknetconfig {

bool isKept(std::string_view subject)
{
    const char* const value = secure_getenv("VKNETCONFIG_KEEP");
    if (value == nullptr) return false;
    std::string_view rest = value;
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        if (rest.substr(0, comma) == subject) return true;
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    }
    return false;
}

bool isLeftToReplacement(const std::string& subject)
{
    if (!isKept(subject)) return false;
    VKNETCONFIG_INFO("%s: kept, as it is to be replaced", subject.c_str());
    return true;
}

}  // namespace vknetconfig
