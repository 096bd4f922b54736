// SPDX-License-Identifier: Apache-2.0
#include "openvpn/AgentClient.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "CommandError.h"
#include "io/WholeFile.h"
#include "json/JsonError.h"
#include "json/StrictJson.h"

namespace vpnoalctl {

namespace {

// Longer than a restore and an apply with their subprocesses take.
constexpr std::chrono::seconds longestWait(60);
constexpr std::size_t longestAnswer = 65536;
constexpr char remedy[] = "is 'vpnoalctl run' still running?";

struct Answer {
    bool isDone = false;
    std::string error;
    std::string key;
    std::string remedy;
};

constexpr wfoal::JsonField<Answer> answerKeys[] = {
    {"ok", false, [](const wfoal::JsonValue& value, Answer& answer) { answer.isDone = value.boolean(); }},
    {"error", false, [](const wfoal::JsonValue& value, Answer& answer) { answer.error = value.text(); }},
    {"key", false, [](const wfoal::JsonValue& value, Answer& answer) { answer.key = value.text(); }},
    {"remedy", false, [](const wfoal::JsonValue& value, Answer& answer) { answer.remedy = value.text(); }},
};

Answer readAnswer(const std::string& text)
{
    try {
        const wfoal::JsonDocument document(text.c_str(), "the answer");
        Answer answer;
        document.root().readObject(answerKeys, answer);
        return answer;
    } catch (const wfoal::JsonError& error) {
        throw CommandError("vpnoalctl run", error.what(), remedy);
    }
}

}  // namespace

std::string inheritedVariable(const char* name)
{
    if (const char* value = std::getenv(name)) return value;
    constexpr std::size_t most = std::size_t{4} << 20;
    const auto variables = wfoal::readWhole(fmt::format("/proc/{}/environ", getppid()), most);
    if (!variables) return {};
    const std::string start = std::string(name) + "=";
    for (std::size_t at = 0; at < variables->size(); at = variables->find('\0', at) + 1) {
        if (variables->compare(at, start.size(), start) == 0) return variables->c_str() + at + start.size();
        if (variables->find('\0', at) == std::string::npos) break;
    }
    return {};
}

AgentClient::AgentClient(const std::string& path)
    : mPath(path), mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw badInput(agentSocketVariable, "is too long for a socket");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (!mSocket.valid() || connect(mSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw systemError(path, errno, remedy);
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(mSocket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) throw systemError(path, errno, remedy);
    if (peer.uid != 0 && peer.uid != geteuid()) {
        throw CommandError(path, "belongs to another user", "it must be the socket of 'vpnoalctl run'");
    }
    mAgent = peer.pid;
}

std::string AgentClient::answer()
{
    const auto deadline = std::chrono::steady_clock::now() + longestWait;
    std::string text;
    while (text.find('\n') == std::string::npos) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd watched{mSocket.get(), POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&watched, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) throw CommandError(mPath, "the agent does not answer", remedy);
        char piece[4096];
        const ssize_t length = recv(mSocket.get(), piece, sizeof piece, 0);
        if (length < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (length < 0) throw systemError(mPath, errno, remedy);
        if (length == 0) throw CommandError(mPath, "the agent closed the connection without an answer", remedy);
        text.append(piece, static_cast<std::size_t>(length));
        if (text.size() > longestAnswer) throw CommandError(mPath, "the agent's answer is too long", remedy);
    }
    return text;
}

void AgentClient::request(const std::string& line)
{
    std::string rest = line + "\n";
    while (!rest.empty()) {
        pollfd watched{mSocket.get(), POLLOUT, 0};
        const int ready = poll(&watched, 1, static_cast<int>(std::chrono::milliseconds(longestWait).count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) throw CommandError(mPath, "the agent does not read", remedy);
        const ssize_t sent = send(mSocket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (sent < 0) throw systemError(mPath, errno, remedy);
        rest.erase(0, static_cast<std::size_t>(sent));
    }
    const Answer reply = readAnswer(answer());
    if (reply.isDone && reply.error.empty()) return;
    const std::string what = reply.key.empty() ? "vpnoalctl run" : reply.key;
    throw CommandError(what, reply.error.empty() ? "refused the request" : reply.error, reply.remedy);
}

}  // namespace vpnoalctl
