// SPDX-License-Identifier: Apache-2.0
//
// Two carriers with a TLS session between them. Pairs of sockets that keep packets apart stand for the devices.
#include "client/PacketCarrier.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <memory>
#include <random>

#include "CertificateAuthority.h"

namespace sampleclient {
namespace {

std::array<UniqueFd, 2> socketPair(int type)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(0, socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()));
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

struct Side {
    explicit Side(TlsStream::Side side, UniqueFd socket) : context(newTlsContext(side))
    {
        if (side == TlsStream::Side::Server) {
            const testsupport::Identity identity = testsupport::makeIdentity({"server", 1});
            SSL_CTX_use_certificate(context.get(), identity.certificate.get());
            SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
        }
        stream = std::make_unique<TlsStream>(context.get(), std::move(socket), side);
        carrier.attach(stream.get());
    }

    SslCtxPtr context;
    std::array<UniqueFd, 2> device = socketPair(SOCK_SEQPACKET);  // the carrier's end, and the kernel's
    std::unique_ptr<TlsStream> stream;
    PacketCarrier carrier{device[0].get()};
};

class PacketCarrierTest : public testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        std::array<UniqueFd, 2> sockets = socketPair(SOCK_STREAM);
        mClient = std::make_unique<Side>(TlsStream::Side::Client, std::move(sockets[0]));
        mServer = std::make_unique<Side>(TlsStream::Side::Server, std::move(sockets[1]));
        for (int i = 0; i < 10; ++i) {
            const bool client = mClient->stream->handshake() == TlsStream::Result::Done;
            const bool server = mServer->stream->handshake() == TlsStream::Result::Done;
            if (client && server) return;
        }
        FAIL() << mClient->stream->reason() << mServer->stream->reason();
    }
    static bool put(const Side& side, const std::string& packet)
    {
        return send(side.device[1].get(), packet.data(), packet.size(), 0) == static_cast<ssize_t>(packet.size());
    }
    static std::string get(const Side& side)
    {
        std::string packet(largestPacket, '\0');
        const ssize_t size = recv(side.device[1].get(), packet.data(), packet.size(), 0);
        packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return packet;
    }

    std::unique_ptr<Side> mClient;
    std::unique_ptr<Side> mServer;
};

TEST_F(PacketCarrierTest, BothWaysInOrderAndUnchanged)
{
    std::mt19937 random(3);
    const std::array<std::pair<Side*, Side*>, 2> ways{{{mClient.get(), mServer.get()}, {mServer.get(), mClient.get()}}};
    for (int i = 0; i < 3000; ++i) {
        for (const auto& [from, to] : ways) {
            const std::string packet(1 + random() % 1400, static_cast<char>(random()));
            ASSERT_TRUE(put(*from, packet));
            ASSERT_TRUE(from->carrier.carry());
            ASSERT_TRUE(to->carrier.carry());
            ASSERT_EQ(packet, get(*to));
        }
    }
}

TEST_F(PacketCarrierTest, PeerThatDoesNotReadHoldsTheDeviceUpAndLosesNothing)
{
    const std::string packet(1400, 'x');
    int sent = 0;
    while (mClient->carrier.deviceEvents() != 0) {
        if (put(*mClient, packet)) ++sent;
        ASSERT_TRUE(mClient->carrier.carry());
        ASSERT_LT(sent, 100000);
    }
    EXPECT_NE(0, mClient->carrier.streamEvents() & POLLOUT);
    int received = 0;
    for (int idle = 0; idle < 3;) {
        ASSERT_TRUE(mServer->carrier.carry());
        const int before = received;
        while (get(*mServer) == packet)
            ++received;
        ASSERT_TRUE(mClient->carrier.carry());
        idle = received == before ? idle + 1 : 0;
    }
    EXPECT_GT(sent, 180);
    // The device's own queue drops what is too much, as a tunnel device does; the carrier drops nothing.
    EXPECT_NE(0, mClient->carrier.deviceEvents());
    EXPECT_EQ(0, mClient->carrier.streamEvents() & POLLOUT);
    EXPECT_GT(received, 0);
}

TEST_F(PacketCarrierTest, EndOfThePeerIsNoticed)
{
    EXPECT_TRUE(mClient->carrier.carry());
    mServer->stream->shutDown();
    mServer->carrier.attach(nullptr);
    mServer->stream.reset();
    EXPECT_FALSE(mClient->carrier.carry());
    EXPECT_EQ("the other side ended the connection", mClient->stream->reason());
}

TEST_F(PacketCarrierTest, WithoutAStreamTheDeviceIsLeftAlone)
{
    mClient->carrier.attach(nullptr);
    ASSERT_TRUE(put(*mClient, "waits"));
    EXPECT_TRUE(mClient->carrier.carry());
    EXPECT_EQ(0, mClient->carrier.deviceEvents());
    EXPECT_EQ(0, mClient->carrier.streamEvents());
    mClient->carrier.attach(mClient->stream.get());
    EXPECT_TRUE(mClient->carrier.carry());
    EXPECT_TRUE(mServer->carrier.carry());
    EXPECT_EQ("waits", get(*mServer));
}

}  // namespace
}  // namespace sampleclient
