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
#include <sys/statvfs.h>
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

// Locked mount flags must be kept by a remount in a user namespace.
unsigned long mountFlags(const std::string& folder)
{
    struct statvfs status {};
    check(statvfs(folder.c_str(), &status) == 0, "flags of the mount of " + folder);
    unsigned long flags = 0;
    if ((status.f_flag & ST_NOSUID) != 0) flags |= MS_NOSUID;
    if ((status.f_flag & ST_NODEV) != 0) flags |= MS_NODEV;
    if ((status.f_flag & ST_NOEXEC) != 0) flags |= MS_NOEXEC;
    if ((status.f_flag & ST_NOATIME) != 0) flags |= MS_NOATIME;
    if ((status.f_flag & ST_NODIRATIME) != 0) flags |= MS_NODIRATIME;
    if ((status.f_flag & ST_RELATIME) != 0) flags |= MS_RELATIME;
    return flags;
}

constexpr char machineEtc[] = "/run/machine-etc";

// The machine's own /etc, also when this process was started in private namespaces already.
UniqueFd holdEtc()
{
    UniqueFd outer(open(machineEtc, O_PATH | O_DIRECTORY | O_CLOEXEC));
    return outer.valid() ? std::move(outer) : UniqueFd(open("/etc", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// /etc becomes a private folder of links into the machine's own, which is then read-only. The files that daemons write
// or that name users are copies; /etc/resolv.conf is empty.
void coverEtc(const UniqueFd& etc)
{
    namespace fs = std::filesystem;
    const std::string machine = machineEtc;
    const std::string source = "/proc/self/fd/" + std::to_string(etc.get());
    fs::create_directory(machine);
    check(mount(source.c_str(), machine.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind /etc");
    check(
        mount(nullptr, machine.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | mountFlags(machine), nullptr) == 0,
        "make /etc read-only");
    check(mount("private", "/etc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") == 0, "mount on /etc");
    for (const fs::directory_entry& entry : fs::directory_iterator(machine)) {
        const fs::path target = "/etc" / entry.path().filename();
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), target);
        } else {
            fs::create_symlink(entry.path(), target);
        }
    }
    for (const char* name : {"passwd", "group", "hosts", "resolv.conf"}) {
        const fs::path target = fs::path("/etc") / name;
        fs::remove(target);
        const fs::path original = fs::path(machine) / name;
        if (std::strcmp(name, "resolv.conf") != 0 && fs::exists(original)) fs::copy_file(original, target);
    }
    const UniqueFd resolvConf(open("/etc/resolv.conf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    check(resolvConf.valid(), "create /etc/resolv.conf");
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
        unshareAll();
        check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
        // Held open from here on: only mounts of the same namespace can be bound.
        const std::vector<KeptTree> trees = holdTrees();
        const UniqueFd etc = holdEtc();
        coverFolder("/tmp", "mode=1777", trees);
        coverFolder("/run", "mode=755", trees);
        coverFolder("/var", "mode=755", trees);
        std::filesystem::create_directories("/var/tmp");
        coverEtc(etc);
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
