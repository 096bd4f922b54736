// SPDX-License-Identifier: Apache-2.0
#include "Daemons.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "Isolation.h"

namespace testsupport {

namespace {

constexpr char stateFolder[] = "/run/private";
constexpr char busAddress[] = "unix:path=/run/private/bus";
constexpr char script[] = WFOAL_SOURCE_DIR "/tests/support/daemons.sh";

struct DaemonRow {
    Daemon daemon;
    const char* name;     // as daemons.sh calls it
    const char* program;  // as fetch-daemons.sh unpacks it
    const char* busName;
};

constexpr std::array<DaemonRow, 3> daemonTable{{
    {Daemon::resolved, "resolved", "systemd-resolved", "org.freedesktop.resolve1"},
    {Daemon::elogind, "elogind", "elogind", "org.freedesktop.login1"},
    {Daemon::networkManager, "networkmanager", "NetworkManager", "org.freedesktop.NetworkManager"},
}};

const DaemonRow& rowOf(Daemon daemon)
{
    return daemonTable.at(static_cast<std::size_t>(daemon));
}

std::string logPath(const std::string& name)
{
    return std::string(stateFolder) + "/" + name + ".log";
}

std::string logOf(const std::string& name)
{
    std::ifstream file(logPath(name));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

UniqueFd createLog(const std::string& name)
{
    std::filesystem::create_directories(stateFolder);
    UniqueFd log(open(logPath(name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    if (!log.valid()) throw std::runtime_error(logPath(name) + ": " + std::strerror(errno));
    return log;
}

// The bus prints its address once it listens; the pipe just closes when it could not start.
std::string readLine(int descriptor)
{
    std::string line;
    char character = 0;
    for (;;) {
        const ssize_t count = read(descriptor, &character, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0 || character == '\n') return line;
        line += character;
    }
}

}  // namespace

std::string daemonTool(const std::string& name)
{
    return std::string(WFOAL_DAEMONS_DIR "/bin/") + name;
}

std::string daemonUnavailable(Daemon daemon)
{
    if (daemon == Daemon::elogind && isInUserNamespace()) {
        return "elogind cannot mount its cgroup tree in a user namespace";
    }
    const char* program = rowOf(daemon).program;
    if (access(daemonTool(program).c_str(), X_OK) == 0 || std::getenv("CI") != nullptr) return {};
    return std::string(program) + " is not there: run tests/support/fetch-daemons.sh build/daemons";
}

namespace {

ChildProcess startBus(const char* kind)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the bus");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ChildProcess bus({script, "run", kind}, writer.get());
    writer.reset();
    const std::string line = readLine(reader.get());
    if (line.rfind("unix:", 0) != 0) throw std::runtime_error("dbus-daemon did not start: " + line);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress, 1);
    return bus;
}

}  // namespace

ChildProcess startBus()
{
    return startBus("bus");
}

ChildProcess startSystemBus()
{
    return startBus("systembus");
}

void waitForBusName(const std::string& name, const ChildProcess& process)
{
    const UniqueFd quiet(open("/dev/null", O_WRONLY | O_CLOEXEC));
    ChildProcess waiter({"gdbus", "wait", "--address", busAddress, "--timeout", "20", name}, quiet.get());
    std::array<pollfd, 2> ends{{{waiter.endDescriptor(), POLLIN, 0}, {process.endDescriptor(), POLLIN, 0}}};
    while (poll(ends.data(), ends.size(), -1) < 0 && errno == EINTR) {
    }
    if (ends[0].revents == 0) throw std::runtime_error("the process that was to own " + name + " has ended");
    if (waiter.wait() != 0) throw std::runtime_error(name + " did not appear on the bus");
}

std::string mountResolvconf()
{
    namespace fs = std::filesystem;
    const std::string unpacked = WFOAL_DAEMONS_DIR "/resolvconf";
    if (fs::exists("/etc/resolvconf/update.d/libc")) return {};
    // Newer releases have its program and scripts below usr/ alone.
    const bool isBelowUsr = access((unpacked + "/usr/sbin/resolvconf").c_str(), X_OK) == 0;
    if (!isBelowUsr && access((unpacked + "/sbin/resolvconf").c_str(), X_OK) != 0) {
        return "resolvconf is not there: run tests/support/fetch-daemons.sh build/daemons";
    }
    for (const char* folder : {"sbin", "lib"}) {
        const std::string target = std::string("/usr/") + folder;
        const std::string lower =
            "lowerdir=" + unpacked + (isBelowUsr ? target : std::string("/") + folder) + ":" + target;
        if (mount("private", target.c_str(), "overlay", MS_RDONLY, lower.c_str()) != 0) {
            return "no overlay can be mounted on " + target + ": " + std::strerror(errno);
        }
    }
    for (const char* path : {"/etc/resolvconf", "/etc/resolv.conf"})
        fs::remove(path);
    fs::create_symlink(unpacked + "/etc/resolvconf", "/etc/resolvconf");
    fs::create_directories("/run/resolvconf/interface");
    fs::create_symlink("/run/resolvconf/resolv.conf", "/etc/resolv.conf");
    std::ofstream("/run/resolvconf/resolv.conf").flush();
    std::ofstream("/run/resolvconf/enable-updates").flush();
    return {};
}

ChildProcess startDaemon(Daemon daemon)
{
    return std::move(startDaemons({daemon}).front());
}

std::vector<ChildProcess> startDaemons(const std::vector<Daemon>& daemons)
{
    std::vector<ChildProcess> processes;
    for (const Daemon daemon : daemons) {
        const DaemonRow& row = rowOf(daemon);
        const UniqueFd log = createLog(row.name);
        processes.push_back(ChildProcess({script, "run", row.name}, log.get()));
    }
    for (std::size_t i = 0; i < daemons.size(); ++i) {
        const DaemonRow& row = rowOf(daemons[i]);
        try {
            waitForBusName(row.busName, processes[i]);
        } catch (const std::runtime_error& error) {
            throw std::runtime_error(std::string(error.what()) + "\n" + logOf(row.name));
        }
    }
    return processes;
}

}  // namespace testsupport
