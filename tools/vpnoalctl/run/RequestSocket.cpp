// SPDX-License-Identifier: Apache-2.0
#include "run/RequestSocket.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "CommandError.h"
#include "run/Request.h"

namespace vpnoalctl {

namespace {

constexpr char folder[] = "/run/vpnoalctl";
constexpr std::size_t mostConnections = 16;
constexpr std::size_t largestRequest = std::size_t{64} << 20;
constexpr char remedy[] = "free resources and try again";

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

UniqueFd newSocket()
{
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.valid()) throw systemError("socket", errno, remedy);
    return socket;
}

void makeFolder()
{
    if (mkdir(folder, 0700) != 0 && errno != EEXIST) throw systemError(folder, errno, "run it as root");
    struct stat status {};
    if (lstat(folder, &status) != 0) throw systemError(folder, errno, remedy);
    if (S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & 077) == 0) return;
    throw CommandError(folder, "is no folder of this user alone", "remove it");
}

// Sockets of processes that were killed.
void removeStaleSockets()
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
        const sockaddr_un address = addressOf(entry.path());
        const UniqueFd attempt = newSocket();
        const bool isStale = connect(attempt.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
                             errno == ECONNREFUSED;
        if (isStale) unlink(entry.path().c_str());
    }
}

bool isAllowed(int socket)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == geteuid();
}

std::string refusal(const char* reason)
{
    return answerTo(badInput("request", reason, "nothing was changed"));
}

}  // namespace

RequestSocket::RequestSocket(Answerer answerer) : mAnswerer(std::move(answerer)), mListener(newSocket())
{
    makeFolder();
    removeStaleSockets();
    mPath = fmt::format("{}/{}", folder, getpid());
    const sockaddr_un address = addressOf(mPath);
    unlink(mPath.c_str());
    if (bind(mListener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(mListener.get(), mostConnections) != 0) {
        throw systemError(mPath, errno, remedy);
    }
}

RequestSocket::~RequestSocket()
{
    unlink(mPath.c_str());
    rmdir(folder);  // fails while others listen
}

void RequestSocket::addDescriptors(std::vector<pollfd>& watched) const
{
    if (mConnections.size() < mostConnections) watched.push_back({mListener.get(), POLLIN, 0});
    for (const Connection& connection : mConnections) {
        const short events = connection.isAnswered ? POLLOUT : POLLIN;
        watched.push_back({connection.socket.get(), events, 0});
    }
}

void RequestSocket::dispatch()
{
    accept();
    mConnections.remove_if([this](Connection& connection) { return !serve(connection); });
}

void RequestSocket::accept()
{
    while (mConnections.size() < mostConnections) {
        UniqueFd socket(accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.valid()) return;
        if (isAllowed(socket.get())) mConnections.push_back({std::move(socket), {}, {}, false});
    }
}

// False when the connection is done with.
bool RequestSocket::serve(Connection& connection)
{
    if (!connection.isAnswered && !receive(connection)) return true;
    while (!connection.answer.empty()) {
        const ssize_t sent =
            send(connection.socket.get(), connection.answer.data(), connection.answer.size(), MSG_NOSIGNAL);
        if (sent < 0) return errno == EAGAIN || errno == EINTR;
        connection.answer.erase(0, static_cast<std::size_t>(sent));
    }
    return false;
}

// True when there is an answer.
bool RequestSocket::receive(Connection& connection)
{
    char chunk[65536];
    while (true) {
        const ssize_t count = recv(connection.socket.get(), chunk, sizeof chunk, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) return false;
        if (count > 0) connection.received.append(chunk, static_cast<std::size_t>(count));
        const bool isTooLarge = connection.received.size() > largestRequest;
        const bool hasLine = count > 0 && std::char_traits<char>::find(chunk, static_cast<std::size_t>(count), '\n');
        if (count > 0 && !isTooLarge && !hasLine) continue;
        const std::string line = connection.received.substr(0, connection.received.find('\n'));
        const bool isWhole = line.size() + 1 == connection.received.size();
        connection.received.clear();
        connection.isAnswered = true;
        connection.answer = isTooLarge ? refusal("is larger than 64 MiB")
                            : !isWhole ? refusal("is not one line, with a line end")
                                       : mAnswerer(line);
        return true;
    }
}

}  // namespace vpnoalctl
