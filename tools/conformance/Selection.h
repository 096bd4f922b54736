// SPDX-License-Identifier: Apache-2.0
//
// All promises, and those of them that somebody names.
#ifndef CONFORMANCE_SELECTION_H
#define CONFORMANCE_SELECTION_H

#include <string>
#include <vector>

#include "Promise.h"

namespace conformance {

/// The promises of the header `only`, or those with these words; all for an empty text.
std::vector<const Promise*> selectPromises(const std::string& only);

/// What was perhaps meant by a text that selects nothing; empty when nothing is near.
std::string suggestSelection(const std::string& only);

}  // namespace conformance

#endif
