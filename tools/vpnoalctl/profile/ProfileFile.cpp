// SPDX-License-Identifier: Apache-2.0
#include "profile/ProfileFile.h"

#include <unistd.h>

#include "CommandError.h"
#include "io/WholeFile.h"
#include "json/JsonError.h"
#include "text/Excerpt.h"

namespace vpnoalctl {

namespace {

const char* nameOf(const std::string& file)
{
    return file == "-" ? "standard input" : file.c_str();
}

bool isName(const std::string& profile)
{
    constexpr char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return profile.find_first_not_of(letters) == std::string::npos && profile.find_first_not_of('-') == 0;
}

}  // namespace

std::string profilePath(const std::string& profile)
{
    const std::string path = std::string(profileFolder) + "/" + profile + ".json";
    return isName(profile) && access(path.c_str(), F_OK) == 0 ? path : profile;
}

std::string readJsonFile(const std::string& file)
{
    constexpr std::size_t largest = std::size_t{64} << 20;
    const auto text = file == "-" ? wfoal::readWhole(STDIN_FILENO, largest + 1) : wfoal::readWhole(file, largest + 1);
    if (!text) throw badInput(nameOf(file), text.reason(), "give a profile that can be read");
    if (text->size() > largest) throw badInput(nameOf(file), "is larger than 64 MiB", "a profile is a small JSON file");
    return *text;
}

void readJson(const std::string& text, const JsonSource& source,
              const std::function<void(const wfoal::JsonValue& root)>& read)
{
    const std::string kind = source.kind;
    try {
        if (const auto nul = text.find('\0'); nul != std::string::npos) {
            throw wfoal::JsonError("", kind + " is not JSON: it holds a NUL byte, at " + wfoal::positionIn(text, nul));
        }
        read(wfoal::JsonDocument(text.c_str(), source.kind).root());
    } catch (const wfoal::JsonError& error) {
        throw badInput(nameOf(source.file), error.what(), "correct " + kind + "; nothing was changed")
            .withKey(error.key());
    }
}

}  // namespace vpnoalctl
