// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl bind: opens a TCP connection from a socket that the plug-in has bound, as an agent does for its outer
// connection, and prints its interface and how long it took.
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "OuterSocket.h"
#include "commands/Commands.h"
#include "handles/UniqueFd.h"

namespace vpnoalctl {

namespace {

struct Target {
    std::string host;
    unsigned short port = 0;
    unsigned timeout = 10;  // seconds

    std::string label() const { return "bind " + host + " " + std::to_string(port); }
};

sockaddr_in resolve(const Target& target)
{
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(target.host.c_str(), nullptr, &wanted, &found);
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    if (error != 0) throw CommandError(target.label(), gai_strerror(error), "use a name or IPv4 address that resolves");
    sockaddr_in address = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    address.sin_port = htons(target.port);
    return address;
}

// 0, or the errno value of a failed connection.
int connectWithin(int socket, const sockaddr_in& address, unsigned seconds)
{
    const int begun = beginConnection(socket, address);
    if (begun != EINPROGRESS) return begun;
    pollfd query{socket, POLLOUT, 0};
    if (poll(&query, 1, static_cast<int>(seconds * 1000)) != 1) return ETIMEDOUT;
    return connectionResult(socket);
}

void print(Context& context, int socket, const sockaddr_in& remote, std::chrono::steady_clock::duration duration)
{
    const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();

    Table table{{{"what", ""}, {"value", ""}}, {}};
    table.rows = {{{"interface", Style::Title}, {deviceOf(socket), Style::Good}},
                  {{"local", Style::Title}, {localEndOf(socket)}},
                  {{"remote", Style::Title}, {endpointText(remote)}},
                  {{"microseconds", Style::Title}, {std::to_string(microseconds)}}};
    if (!context.output.json()) context.output.table(table);
    const JsonPtr answer = newObject();
    addText(answer, "interface", deviceOf(socket));
    addText(answer, "local", localEndOf(socket));
    addText(answer, "remote", endpointText(remote));
    addNumber(answer, "microseconds", microseconds);
    context.output.value(answer);
}

int openConnection(Context& context, const Target& target)
{
    const sockaddr_in remote = resolve(target);
    const auto socketPlugin = context.plugin().create<KEST_SocketPlugin>();
    const UniqueFd socket = boundSocket(*socketPlugin, target.label());
    const auto begin = std::chrono::steady_clock::now();
    const int error = connectWithin(socket.get(), remote, target.timeout);
    if (error != 0) {
        throw systemError(target.label() + " through " + deviceOf(socket.get()), error, "is the host reachable there?");
    }
    print(context, socket.get(), remote, std::chrono::steady_clock::now() - begin);
    return ExitOk;
}

}  // namespace

Action defineBind(CLI::App& command)
{
    auto target = std::make_shared<Target>();
    command.add_option("host", target->host, "Name or IPv4 address")->required()->type_name("HOST");
    command.add_option("port", target->port, "TCP port")->required()->type_name("PORT")->check(CLI::Range(1, 65535));
    command.add_option("--timeout", target->timeout, "Seconds to wait for the connection (10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    return [target](Context& context) { return openConnection(context, *target); };
}

}  // namespace vpnoalctl
