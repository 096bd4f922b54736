// SPDX-License-Identifier: Apache-2.0
//
// Suggestions for misspelt names.
#ifndef WFOAL_SUGGEST_H
#define WFOAL_SUGGEST_H

#include <string>
#include <string_view>
#include <vector>

namespace wfoal {

/// The name nearest to `word` if at most a third of its letters differ; otherwise an empty text.
std::string nearest(std::string_view word, const std::vector<std::string>& names);

}  // namespace wfoal

#endif
