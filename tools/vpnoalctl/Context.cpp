// SPDX-License-Identifier: Apache-2.0
#include "Context.h"

namespace vpnoalctl {

PluginLibrary& Context::plugin()
{
    if (!mPlugin) mPlugin.emplace(PluginLibrary::search(settings.pluginPath));
    return *mPlugin;
}

void Context::explain(const std::string& text) const
{
    if (settings.verbosity > 0) tell(text);
}

}  // namespace vpnoalctl
