// SPDX-License-Identifier: Apache-2.0
//
// A JSON file that a person writes. Errors name the file and the key.
#ifndef VPNOALCTL_PROFILEFILE_H
#define VPNOALCTL_PROFILEFILE_H

#include <functional>
#include <string>

#include "json/StrictJson.h"

namespace vpnoalctl {

struct JsonSource {
    std::string file;  ///< its name in errors
    const char* kind;  ///< what errors call its content: "the profile"
};

/// Where profiles lie that are called by their names.
constexpr char profileFolder[] = "/etc/vpnwfoal/profiles";

/// The file of a profile: a name of letters, digits, '_' and '-' stands for NAME.json in the folder above when there is
/// one; everything else is a file's name.
std::string profilePath(const std::string& profile);

/// The text of a file, or of standard input when `file` is "-". Throws CommandError with ExitUsage, also when the file
/// is larger than 64 MiB.
std::string readJsonFile(const std::string& file);

/// Calls `read` with the text's root. Throws CommandError with ExitUsage when the text is not JSON, or for a JsonError
/// of `read`.
void readJson(const std::string& text, const JsonSource& source,
              const std::function<void(const wfoal::JsonValue& root)>& read);

}  // namespace vpnoalctl

#endif
