// SPDX-License-Identifier: Apache-2.0
#include "config/ConfigFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "CommandError.h"
#include "config/TunnelPlan.h"
#include "handles/CString.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"
#include "text/Excerpt.h"

namespace vpnoalwg {

namespace {

using vpnoalctl::badInput;

constexpr char folder[] = "/etc/wireguard/";
constexpr char suffix[] = ".conf";
constexpr char remedy[] = "correct the file; nothing was changed";

// The characters of wg-quick's names.
bool isName(const std::string& text)
{
    constexpr std::size_t longest = 15;
    constexpr char characters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_=+.-";
    return !text.empty() && text.size() <= longest && text.find_first_not_of(characters) == std::string::npos;
}

struct stat statusOf(int file, const std::string& path)
{
    struct stat status {};
    if (fstat(file, &status) != 0) throw badInput(path, std::strerror(errno), remedy);
    return status;
}

// Who can write the file, or put another one in its place, would be root.
void refuseForeignWriters(const struct stat& status, const std::string& path)
{
    const std::string advice = "its commands run as root: copy it with 'install -m 600 FILE /etc/wireguard/'";
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        throw badInput(path, "belongs to user " + std::to_string(status.st_uid), advice);
    }
    const bool isSticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !isSticky) throw badInput(path, "others may write it", advice);
}

std::string folderOf(const std::string& path)
{
    return path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
}

}  // namespace

std::string pathOf(const std::string& nameOrFile)
{
    const std::size_t slash = nameOrFile.rfind('/');
    const std::string base = slash == std::string::npos ? nameOrFile : nameOrFile.substr(slash + 1);
    const std::size_t length = std::strlen(suffix);
    const bool hasSuffix = base.size() > length && base.compare(base.size() - length, length, suffix) == 0;
    if (!hasSuffix && slash == std::string::npos && isName(base)) return folder + base + suffix;
    if (hasSuffix && nameOrFile.size() < PATH_MAX && nameOrFile.find('\0') == std::string::npos) return nameOrFile;
    throw badInput(wfoal::excerpt(nameOrFile), "is neither a name nor a file NAME.conf",
                   "a name is 1 to 15 letters, digits and _=+.-; its file is /etc/wireguard/NAME.conf");
}

std::string resolvedPathOf(const std::string& nameOrFile)
{
    const std::string given = pathOf(nameOrFile);
    const CStringPtr resolved(realpath(given.c_str(), nullptr));
    return resolved != nullptr ? resolved.get() : given;
}

ConfigFile readConfigFile(const std::string& nameOrFile)
{
    const std::string given = pathOf(nameOrFile);
    // A link may point into a folder that others may write.
    const CStringPtr resolved(realpath(given.c_str(), nullptr));
    if (resolved == nullptr) throw badInput(given, std::strerror(errno), "give a configuration that can be read");
    ConfigFile file{resolved.get(), {}, {}};
    const UniqueFd opened(open(file.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!opened.valid()) throw badInput(file.path, std::strerror(errno), "give a configuration that can be read");
    const struct stat status = statusOf(opened.get(), file.path);
    if (!S_ISREG(status.st_mode)) throw badInput(file.path, "is no regular file", "give a configuration's file");
    refuseForeignWriters(status, file.path);
    const std::string parent = folderOf(file.path);
    const UniqueFd above(open(parent.c_str(), O_PATH | O_CLOEXEC));
    if (!above.valid()) throw badInput(parent, std::strerror(errno), remedy);
    refuseForeignWriters(statusOf(above.get(), parent), parent);
    if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        file.warnings.push_back(file.path + ": others may read the keys; 'chmod 600 " + file.path + "' ends that");
    }

    const auto text = wfoal::readWhole(opened.get(), largestConfig + 1);
    if (!text) throw badInput(file.path, text.reason(), remedy);
    auto config = parseWgConfig(*text);
    if (!config) throw badInput(file.path, config.reason(), remedy);
    file.config = std::move(*config);
    const wfoal::Check usable = checkUsable(file.config);
    if (!usable) throw badInput(file.path, usable.reason(), remedy);
    return file;
}

}  // namespace vpnoalwg
