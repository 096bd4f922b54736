// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <exception>
#include <filesystem>

#include "PluginLibrary.h"
#include "certificates/ClientHandles.h"
#include "completion/Completion.h"
#include "profile/ProfileFile.h"

namespace vpnoalctl {

namespace {

std::vector<std::string> profileNames()
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(profileFolder, error)) {
        if (entry.path().extension() == ".json") names.push_back(entry.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> locationNames()
{
    return {"main", "root", "user", "profile", "l10n", "script", "temp"};
}

// The beginning of a fingerprint names a certificate and needs no quotes in any shell.
std::vector<std::string> certificateNames(const std::string& pluginPath)
{
    constexpr std::size_t shown = 16;
    std::vector<std::string> names;
    try {
        const PluginLibrary plugin = PluginLibrary::search(pluginPath);
        const auto certificates = plugin.create<KEST_CertPlugin>();
        for (const HandlePtr& handle : listHandles(*certificates))
            names.push_back(summarize(certificateOf(*handle).get()).fingerprint.substr(0, shown));
    } catch (const std::exception&) {
        // Nothing is offered then. A message would land in the middle of the line that is being typed.
    }
    return names;
}

}  // namespace

ValueLists deviceValues(const std::string& pluginPath)
{
    return {{"PROFILE", profileNames}, {"LOCATION", locationNames}, {"CHOICE", [pluginPath] {
                                                                         return certificateNames(pluginPath);
                                                                     }}};
}

}  // namespace vpnoalctl
