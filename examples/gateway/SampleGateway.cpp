// SPDX-License-Identifier: Apache-2.0
//
// A SAMPLE gateway, the other end of the sample client: a TLS server that demands a client certificate of one
// authority, and a tunnel device behind it. It serves one client at a time; whoever proves itself last is it. TLS 1.0
// and 1.1 only, because that is what certificate handles sign for.
//
//     samplegateway PROFILE GATEWAY CERTIFICATE KEY CLIENT-AUTHORITY [--no-device]
//
// Profile and gateway are the client's: the gateway has the tunnel's peer address and listens on the gateway's port.
// The other files are PEM. With --no-device it shakes hands and carries nothing. It prints a line for what happens,
// "ready" when it listens, and runs until it is interrupted. Exit codes are those of vpnoalctl.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "ClientSession.h"
#include "CommandError.h"
#include "client/Gateway.h"
#include "client/PacketCarrier.h"
#include "profile/Profile.h"
#include "tunnel/Signals.h"
#include "tunnel/TunDevice.h"

using namespace vpnoalctl;
using namespace sampleclient;
using samplegateway::ClientSession;

namespace {

struct Files {
    const char* certificate;
    const char* key;
    const char* clientAuthority;
};

void say(const std::string& text)
{
    fmt::print("{}\n", text);
    static_cast<void>(std::fflush(stdout));
}

SslCtxPtr serverContext(const Files& files)
{
    SslCtxPtr context = newTlsContext(TlsStream::Side::Server);
    if (SSL_CTX_use_certificate_chain_file(context.get(), files.certificate) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), files.key, SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_load_verify_locations(context.get(), files.clientAuthority, nullptr) != 1) {
        throw badInput(files.certificate, "certificate, key or authority cannot be used: " + takeTlsError());
    }
    SSL_CTX_set_client_CA_list(context.get(), SSL_load_client_CA_file(files.clientAuthority));
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return context;
}

UniqueFd listenOn(in_port_t port)
{
    UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (!listener.valid() || bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), SOMAXCONN) != 0) {
        throw systemError(fmt::format("port {}", port), errno, "");
    }
    return listener;
}

// The client's tunnel, seen from the other end.
TunnelSettings mirrored(TunnelSettings tunnel)
{
    if (!tunnel.peer) throw badInput("tunnel.peer", "missing: the gateway has this address");
    std::swap(tunnel.address.address, *tunnel.peer);
    return tunnel;
}

class Gateway {
public:
    Gateway(const Profile& profile, in_port_t port, const Files& files, bool withDevice)
        : mContext(serverContext(files)), mListener(listenOn(port))
    {
        if (!withDevice) return;
        mDevice = std::make_unique<TunDevice>(mirrored(profile.tunnel.value()));
        mCarrier = std::make_unique<PacketCarrier>(mDevice->descriptor());
    }

    void run()
    {
        say("ready");
        while (!mSignals.isInterrupted()) {
            waitForWork();
            accept();
            shakeHands();
            if (mClient && mCarrier && !mCarrier->carry()) end(mClient->stream().reason());
            if (mClient && !mCarrier) watchIdle();
        }
    }

private:
    void waitForWork()
    {
        std::vector<pollfd> watched{{mSignals.descriptor(), POLLIN, 0}, {mListener.get(), POLLIN, 0}};
        if (mCarrier && mCarrier->deviceEvents() != 0)
            watched.push_back({mDevice->descriptor(), mCarrier->deviceEvents(), 0});
        if (mClient) {
            watched.push_back({mClient->stream().descriptor(), mCarrier ? mCarrier->streamEvents() : short{POLLIN}, 0});
        }
        for (ClientSession& one : mStrangers)
            watched.push_back({one.stream().descriptor(), one.wanted(), 0});
        poll(watched.data(), watched.size(), mStrangers.empty() ? -1 : 1000);
    }

    void accept()
    {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        UniqueFd socket(
            accept4(mListener.get(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket.valid()) mStrangers.emplace_back(mContext.get(), std::move(socket), peer);
    }

    void shakeHands()
    {
        for (auto one = mStrangers.begin(); one != mStrangers.end();) {
            const auto state = one->isTooSlow() ? ClientSession::State::Ended : one->shakeHands();
            const auto next = std::next(one);
            if (state == ClientSession::State::Ready) {
                begin(one);
            } else if (state == ClientSession::State::Ended) {
                say(fmt::format("turned away {}: {}", one->peer(), one->stream().reason()));
                mStrangers.erase(one);
            }
            one = next;
        }
    }

    void begin(std::list<ClientSession>::iterator stranger)
    {
        if (mClient) end("another connection takes its place");
        mProved.splice(mProved.begin(), mStrangers, stranger);
        mClient = &mProved.front();
        if (mCarrier) mCarrier->attach(&mClient->stream());
        say(fmt::format("client {} from {}", mClient->subject(), mClient->peer()));
    }

    void end(const std::string& reason)
    {
        say(fmt::format("client {} left: {}", mClient->peer(), reason));
        if (mCarrier) mCarrier->attach(nullptr);
        mClient = nullptr;
        mProved.clear();
    }

    // Without a device what the client sends is read and dropped.
    void watchIdle()
    {
        char bytes[4096];
        std::size_t count = 0;
        TlsStream::Result result = TlsStream::Result::Done;
        while (result == TlsStream::Result::Done)
            result = mClient->stream().read(bytes, sizeof bytes, count);
        if (result == TlsStream::Result::Closed) end(mClient->stream().reason());
    }

    Signals mSignals;
    SslCtxPtr mContext;
    UniqueFd mListener;
    std::unique_ptr<TunDevice> mDevice;
    std::unique_ptr<PacketCarrier> mCarrier;
    std::list<ClientSession> mStrangers;  // still shaking hands
    std::list<ClientSession> mProved;     // the one client
    ClientSession* mClient = nullptr;
};

int serve(int argc, char** argv)
{
    const bool withDevice = argc == 6;
    if (!withDevice && (argc != 7 || std::strcmp(argv[6], "--no-device") != 0)) {
        throw badInput("usage", "samplegateway PROFILE GATEWAY CERTIFICATE KEY CLIENT-AUTHORITY [--no-device]");
    }
    const Profile profile = loadProfile(argv[1]);
    tunnelToMake(profile, argv[1]);
    const in_port_t port = sampleclient::loadGateway(argv[2]).port;
    Gateway(profile, port, {argv[3], argv[4], argv[5]}, withDevice).run();
    return ExitOk;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return serve(argc, argv);
    } catch (const CommandError& error) {
        fmt::print(stderr, "samplegateway: {}\n", error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        fmt::print(stderr, "samplegateway: {}\n", error.what());
        return ExitFailed;
    }
}
