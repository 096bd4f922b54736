// SPDX-License-Identifier: Apache-2.0
//
// Guessing what somebody meant who misspelt a name.
#ifndef WFOAL_SUGGEST_H
#define WFOAL_SUGGEST_H

#include <string>
#include <string_view>
#include <vector>

namespace wfoal {

/// The name that is nearest to `word`, when it is near: at most a third of its letters differ; else an empty text.
std::string nearest(std::string_view word, const std::vector<std::string>& names);

}  // namespace wfoal

#endif
