// SPDX-License-Identifier: Apache-2.0
#include "Isolation.h"

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "handles/UniqueFd.h"

namespace testsupport {

namespace {

bool sInUserNamespace = false;

void check(bool done, const std::string& what)
{
    if (!done) throw std::runtime_error(what + ": " + std::strerror(errno));
}

void writeFile(const std::string& path, const std::string& text)
{
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    check(file.valid(), "open " + path);
    check(write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), "write " + path);
}

void unshareAll()
{
    const unsigned uid = getuid();
    const unsigned gid = getgid();
    constexpr int namespaces = CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC;
    if (unshare(namespaces) == 0) return;
    check(unshare(CLONE_NEWUSER | namespaces) == 0, "unshare (are user namespaces allowed?)");
    sInUserNamespace = true;
    writeFile("/proc/self/setgroups", "deny");
    writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

// A tree that must stay visible, held open while the folder above it is covered.
struct KeptTree {
    std::string path;
    UniqueFd handle;
};

std::vector<KeptTree> holdTrees()
{
    std::vector<KeptTree> trees;
    for (const std::string& path : {std::string(WFOAL_SOURCE_DIR), std::string(WFOAL_BUILD_DIR)}) {
        UniqueFd handle(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (handle.valid()) trees.push_back({path, std::move(handle)});
    }
    return trees;
}

void coverFolder(const std::string& folder, const char* mode, const std::vector<KeptTree>& trees)
{
    check(mount("private", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, mode) == 0, "mount on " + folder);
    for (const KeptTree& tree : trees) {
        if (tree.path.rfind(folder + "/", 0) != 0) continue;
        if (access((tree.path + "/.").c_str(), F_OK) == 0) continue;  // came back with a tree around it
        std::filesystem::create_directories(tree.path);
        const std::string source = "/proc/self/fd/" + std::to_string(tree.handle.get());
        check(mount(source.c_str(), tree.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind " + tree.path);
    }
}

void loopbackUp()
{
    const UniqueFd control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    check(ioctl(control.get(), SIOCGIFFLAGS, &request) == 0, "flags of lo");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    check(ioctl(control.get(), SIOCSIFFLAGS, &request) == 0, "lo up");
}

}  // namespace

std::string enterPrivateNamespaces()
{
    try {
        const std::string folderBefore = std::filesystem::current_path();
        const std::vector<KeptTree> trees = holdTrees();
        unshareAll();
        check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
        coverFolder("/tmp", "mode=1777", trees);
        coverFolder("/run", "mode=755", trees);
        coverFolder("/var", "mode=755", trees);
        std::filesystem::create_directories("/var/tmp");
        loopbackUp();
        std::error_code ignored;
        std::filesystem::current_path(folderBefore, ignored);
        return {};
    } catch (const std::exception& error) {
        return error.what();
    }
}

bool isInUserNamespace()
{
    return sInUserNamespace;
}

}  // namespace testsupport
