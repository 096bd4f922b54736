// SPDX-License-Identifier: Apache-2.0
//
// Foreign text in error lines, and places in it.
#ifndef WFOAL_EXCERPT_H
#define WFOAL_EXCERPT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace wfoal {

/// The text in a form fit for an error line: in double quotes, printable, 40 characters at most.
std::string excerpt(std::string_view text);

/// "line 2, column 5": the position of a byte of a text. Lines and characters from 1, as an editor counts them.
std::string positionIn(std::string_view text, std::size_t offset);

}  // namespace wfoal

#endif
