// SPDX-License-Identifier: Apache-2.0
#include "client/OuterConnection.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>

#include "CommandError.h"
#include "OuterSocket.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

constexpr char what[] = "gateway";
constexpr auto patience = std::chrono::seconds(10);  // for each answer of the gateway

sockaddr_in addressOf(const GatewaySettings& gateway)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(gateway.port);
    address.sin_addr.s_addr = gateway.address.bits;
    return address;
}

// A gateway that vanished without a word is noticed within about ten seconds.
void watchPeer(int socket)
{
    constexpr struct {
        int level;
        int name;
        int value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},          {IPPROTO_TCP, TCP_KEEPIDLE, 4},
                   {IPPROTO_TCP, TCP_KEEPINTVL, 2},        {IPPROTO_TCP, TCP_KEEPCNT, 3},
                   {IPPROTO_TCP, TCP_USER_TIMEOUT, 10000}, {IPPROTO_TCP, TCP_NODELAY, 1}};
    for (const auto& option : options)
        setsockopt(socket, option.level, option.name, &option.value, sizeof option.value);
}

}  // namespace

std::string OuterConnection::preferredInterface()
{
    return vpnoalctl::preferredInterface(mSockets);
}

UniqueFd OuterConnection::connectSocket()
{
    const sockaddr_in address = addressOf(mGateway);
    mInterface = preferredInterface();
    if (mInterface.empty()) {
        throw CommandError(what, "there is no network to reach it through",
                           "a default route through an interface eth*, wwan*, rmnet* or ppp* is needed");
    }
    mLog.add("interface", mInterface + " is preferred", {{"interface", mInterface}});
    UniqueFd socket = boundSocket(mSockets, what);
    mInterface = deviceOf(socket.get());
    watchPeer(socket.get());
    int error = beginConnection(socket.get(), address);
    if (error == EINPROGRESS) {
        const bool inTime = mWaiter.waitUntilReady(socket.get(), POLLOUT, Waiter::Clock::now() + patience);
        error = inTime ? connectionResult(socket.get()) : ETIMEDOUT;
    }
    if (error != 0) {
        throw systemError(fmt::format("{} {} through {}", what, endpointText(address), mInterface), error,
                          "does it run, and is it reachable there?");
    }
    const std::string local = localEndOf(socket.get());
    mLog.add("bound", fmt::format("{} through {} to {}", local, mInterface, endpointText(address)),
             {{"interface", mInterface}, {"local", local}, {"gateway", endpointText(address)}});
    return socket;
}

void OuterConnection::shakeHands(TlsStream& stream)
{
    for (;;) {
        const TlsStream::Result result = mTls.handshake(stream);
        if (result == TlsStream::Result::Done) break;
        const short wanted = result == TlsStream::Result::WantsWrite ? POLLOUT : POLLIN;
        if (result == TlsStream::Result::Closed) {
            throw CommandError(what, "the TLS handshake failed: " + stream.reason(),
                               "does it know the client certificate, and speak TLS 1.0 or 1.1?");
        }
        if (!mWaiter.waitUntilReady(stream.descriptor(), wanted, Waiter::Clock::now() + patience)) {
            throw CommandError(what, "it does not answer in the TLS handshake", "is it a gateway?");
        }
    }
    mLog.add("handshake", fmt::format("{}, {}, signed by the certificate handle", stream.protocol(), stream.cipher()),
             {{"protocol", stream.protocol()}, {"cipher", stream.cipher()}});
}

std::unique_ptr<TlsStream> OuterConnection::open()
{
    std::unique_ptr<TlsStream> stream = mTls.open(connectSocket());
    shakeHands(*stream);
    return stream;
}

}  // namespace sampleclient
