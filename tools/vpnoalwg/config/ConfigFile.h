// SPDX-License-Identifier: Apache-2.0
//
// The configuration's file. Its commands run as root, so nobody else may write it.
#ifndef VPNOALWG_CONFIGFILE_H
#define VPNOALWG_CONFIGFILE_H

#include <string>
#include <vector>

#include "config/WgConfig.h"

namespace vpnoalwg {

struct ConfigFile {
    std::string path;
    WgConfig config;
    std::vector<std::string> warnings;  ///< about the file, each a whole line
};

/// The file of a name: "home" is /etc/wireguard/home.conf, "./home.conf" is itself. Throws CommandError with ExitUsage.
std::string pathOf(const std::string& nameOrFile);

/// The same, without links where the file is there.
std::string resolvedPathOf(const std::string& nameOrFile);

/// Reads and checks a file. Throws CommandError with ExitUsage; the error names the file and the line.
ConfigFile readConfigFile(const std::string& nameOrFile);

}  // namespace vpnoalwg

#endif
