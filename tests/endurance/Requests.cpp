// SPDX-License-Identifier: Apache-2.0
#include "Requests.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "ChildProcess.h"
#include "Files.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"

namespace endurance {

namespace {

using testsupport::contentOf;

// A message is one request, "KIND ARGUMENT". The answer is one character. An empty message is the end of the channel.
constexpr std::size_t longestMessage = 4096;
constexpr char success = '0';

// Never returns: this is the whole life of the requesting process.
[[noreturn]] void serve(int channel, const std::string& logFile)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    dup2(log, STDERR_FILENO);
    std::vector<char> message(longestMessage);
    while (true) {
        const ssize_t length = recv(channel, message.data(), message.size(), 0);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) _exit(0);
        const std::string text(message.data(), static_cast<std::size_t>(length));
        const std::size_t space = text.find(' ');
        const std::string kind = text.substr(0, space);
        const std::string argument = text.substr(space + 1);
        const int code = makeRequest(kind, kind == "delete" ? argument : contentOf(argument));
        const char answer = code == 0 ? success : '1';
        send(channel, &answer, 1, MSG_NOSIGNAL);
    }
}

}  // namespace

std::string undoLogFiles()
{
    return testsupport::outputOf("ls -A /run/vknetconfig");
}

std::string state()
{
    return testsupport::networkSnapshot() + undoLogFiles();
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    file << text << std::flush;
    if (!file) throw std::runtime_error("cannot write " + path);
}

std::string interfaceRequest(const std::string& name, int secondOctet)
{
    return R"({"ifName":")" + name + R"(","ipv4":{"additionalIfRoutes":[)" +
           R"({"ip":"192.168.0.0","netmask":"255.255.0.0"},{"ip":"172.)" + std::to_string(secondOctet) +
           R"(.0.0","netmask":"255.255.0.0"}]}})";
}

std::string filterRequest(const std::string& label, const std::string& protocol)
{
    return R"({"label":")" + label + R"(","chainNew":"NORVA","rules":[{"operation":"append","protocol":")" + protocol +
           R"(","jumpTo":"DROP"}]})";
}

std::string noFilterRequest(const std::string& label)
{
    return R"({"label":")" + label + R"(","chainDelete":"NORVA"})";
}

Words driverCommand(const Words& steps)
{
    Words command{WFOAL_BUILD_DIR "/bin/netconfigDriver"};
    command.insert(command.end(), steps.begin(), steps.end());
    return command;
}

std::string failureOf(const Words& command)
{
    const testsupport::CommandResult result = testsupport::runCommand(command);
    return result.status == 0 ? std::string() : "exit code " + std::to_string(result.status) + ": " + result.output;
}

int makeRequest(const std::string& kind, const std::string& argument)
{
    if (kind == "add") return CmAddInterfaceCfg2(argument.c_str());
    if (kind == "delete") return CmDelInterfaceCfg(argument.c_str());
    if (kind == "firewall") return VkFirewallFullCtrl(argument.c_str());
    throw std::logic_error("no such request: " + kind);
}

Requester::Requester(const std::string& logFile) : mLogFile(logFile)
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) throw std::runtime_error("socketpair");
    mChannel.reset(ends[0]);
    const UniqueFd other(ends[1]);
    mPid = fork();
    if (mPid < 0) throw std::runtime_error("fork");
    if (mPid > 0) return;
    mChannel.reset();
    serve(other.get(), logFile);
}

Requester::~Requester()
{
    mChannel.reset();
    if (mPid > 0) waitpid(mPid, nullptr, 0);
}

bool Requester::request(const std::string& kind, const std::string& argument) const
{
    const std::string message = kind + " " + argument;
    char answer = 0;
    const bool isSent =
        send(mChannel.get(), message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
    if (!isSent || recv(mChannel.get(), &answer, 1, 0) != 1) throw std::runtime_error("a process ended: " + log());
    return answer == success;
}

std::string Requester::log() const
{
    return contentOf(mLogFile);
}

void Requester::kill()
{
    ::kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
    mPid = -1;
}

}  // namespace endurance
