// SPDX-License-Identifier: Apache-2.0
#include "LogTarget.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Journald.h"
#include "LogSettings.h"
#include "handles/CString.h"
#include "handles/UniqueFd.h"

namespace vklog {

namespace {

constexpr char syslogSocket[] = "/dev/log";

std::string formatted(const char* format, va_list values) __attribute__((format(printf, 1, 0)));

std::string formatted(const char* format, va_list values)
{
    char* made = nullptr;
    const int length = vasprintf(&made, format, values);
    if (length < 0) return format;
    const CStringPtr text(made);
    std::string message(text.get(), static_cast<std::size_t>(length));
    while (!message.empty() && message.back() == '\n')
        message.pop_back();
    return message;
}

// Not through syslog(3): its ident belongs to the whole process, which is the agent's.
bool toSyslog(const std::string& name, int level, const std::string& message)
{
    const UniqueFd socketFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socketFd.valid()) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, syslogSocket, sizeof syslogSocket);
    const std::string line =
        "<" + std::to_string(LOG_DAEMON | level) + ">" + name + "[" + std::to_string(getpid()) + "]: " + message;
    return sendto(socketFd.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address) == static_cast<ssize_t>(line.size());
}

}  // namespace

void print(const char* name, int level, const char* format, va_list values)
{
    const std::string message = formatted(format, values);
    if (!stderrRequested()) {
        if (toJournald(name, level, message) == Delivery::Done || toSyslog(name, level, message)) return;
    }
    // One write, so that lines of several threads do not mix.
    const std::string line = std::string(name) + "[" + std::to_string(level) + "]: " + message + "\n";
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

}  // namespace vklog
