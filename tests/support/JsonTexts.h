// SPDX-License-Identifier: Apache-2.0
//
// Texts that are not JSON, and texts that are, each with the name of what it tries.
#ifndef WFOAL_TEST_JSONTEXTS_H
#define WFOAL_TEST_JSONTEXTS_H

#include <string>
#include <vector>

namespace testsupport {

struct JsonText {
    const char* name;
    std::string text;  // without a NUL byte
};

/// Every one of them is broken as a whole, wherever it stands.
const std::vector<JsonText>& brokenJsonTexts();

const std::vector<JsonText>& goodJsonTexts();

}  // namespace testsupport

#endif
