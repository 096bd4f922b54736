// SPDX-License-Identifier: Apache-2.0
#include "Journald.h"

#include <endian.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace vklog {

namespace {

constexpr char journalSocket[] = "/run/systemd/journal/socket";
constexpr int warning = 4;

std::atomic<unsigned> sDropped{0};  // and not logged yet
std::atomic<bool> sStalled{false};  // a thread has waited in vain since journald last took a message

enum class Sent { Taken, Full, Absent };

// "NAME=value". A value of several lines gets its length in front, so that a line of it cannot pass for a field.
void appendField(std::string& entry, std::string_view name, std::string_view value)
{
    entry += name;
    if (value.find('\n') == std::string_view::npos) {
        entry += '=';
    } else {
        const std::uint64_t length = htole64(value.size());
        entry += '\n';
        entry.append(reinterpret_cast<const char*>(&length), sizeof length);
    }
    entry += value;
    entry += '\n';
}

// A socket for each message: an agent that closes all descriptors it does not know could close a kept one.
UniqueFd connected()
{
    UniqueFd socketFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, journalSocket, sizeof journalSocket);
    if (!socketFd.valid() ||
        connect(socketFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        socketFd.reset();
    }
    return socketFd;
}

// An entry that is too long for one datagram is sent as a sealed file in memory.
UniqueFd sealedFile(std::string_view entry)
{
    UniqueFd file(memfd_create("vklog", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (file.valid() && !wfoal::writeWhole(file.get(), entry)) file.reset();
    constexpr int all = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
    if (file.valid() && fcntl(file.get(), F_ADD_SEALS, all) != 0) file.reset();
    return file;
}

ssize_t sendFile(int socketFd, int file)
{
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof file)] = {};
    msghdr message{};
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    cmsghdr* const attached = CMSG_FIRSTHDR(&message);
    attached->cmsg_level = SOL_SOCKET;
    attached->cmsg_type = SCM_RIGHTS;
    attached->cmsg_len = CMSG_LEN(sizeof file);
    std::memcpy(CMSG_DATA(attached), &file, sizeof file);
    return sendmsg(socketFd, &message, MSG_NOSIGNAL);
}

// Calls `send` again when it is interrupted, and while there is no room, up to the time limit.
template <class Send>
bool sendWithRetry(int socketFd, Send send)
{
    const auto end = std::chrono::steady_clock::now() + longestJournaldWait;
    while (send() < 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN || sStalled) return false;
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd room{socketFd, POLLOUT, 0};
        if (left <= 0 || poll(&room, 1, static_cast<int>(left)) == 0) {
            sStalled = true;
            errno = EAGAIN;
            return false;
        }
    }
    sStalled = false;
    return true;
}

Sent sendEntry(const std::string& entry)
{
    const UniqueFd socketFd = connected();
    if (!socketFd.valid()) return Sent::Absent;
    const int target = socketFd.get();
    if (sendWithRetry(target, [&] { return send(target, entry.data(), entry.size(), MSG_NOSIGNAL); })) {
        return Sent::Taken;
    }
    if (errno == EMSGSIZE || errno == ENOBUFS) {
        const UniqueFd file = sealedFile(entry);
        if (file.valid() && sendWithRetry(target, [&] { return sendFile(target, file.get()); })) return Sent::Taken;
    }
    return errno == EAGAIN ? Sent::Full : Sent::Absent;
}

Sent sendMessage(const std::string& name, int level, const std::string& message)
{
    std::string entry;
    entry.reserve(message.size() + name.size() + 64);
    appendField(entry, "MESSAGE", message);
    appendField(entry, "PRIORITY", std::to_string(level));
    appendField(entry, "SYSLOG_IDENTIFIER", name);
    return sendEntry(entry);
}

// Logs how many messages were dropped. Without room for that, the count is kept.
void reportDropped(const std::string& name)
{
    const unsigned count = sDropped.exchange(0);
    if (count == 0) return;
    const std::string text = std::to_string(count) + " messages dropped: journald did not read them";
    if (sendMessage(name, warning, text) != Sent::Taken) sDropped += count;
}

}  // namespace

Delivery toJournald(const std::string& name, int level, const std::string& message)
{
    reportDropped(name);
    switch (sendMessage(name, level, message)) {
    case Sent::Taken: break;
    case Sent::Full: ++sDropped; break;
    case Sent::Absent: return Delivery::Absent;
    }
    return Delivery::Done;
}

}  // namespace vklog
