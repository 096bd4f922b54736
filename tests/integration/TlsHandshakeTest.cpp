// SPDX-License-Identifier: Apache-2.0
//
// Real TLS 1.0 and 1.1 handshakes of the agent's client with "openssl s_server", which demands a client certificate:
// listing, DER form and signature from end to end, for every way in which a key is kept.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "ChildProcess.h"
#include "ComesTrue.h"
#include "CommandError.h"
#include "certificates/ServerVerdict.h"
#include "client/ClientTls.h"
#include "handles/UniqueFd.h"

namespace {

using sampleclient::TlsStream;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;
using vpnoalctl::ServerVerdict;

constexpr int port = 4433;

UniqueFd connectToServer()
{
    UniqueFd connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    return connected ? std::move(connection) : UniqueFd();
}

// "openssl s_server" for as long as the object lives. The distribution's own settings forbid what these protocols need.
class TlsServer {
public:
    explicit TlsServer(const char* protocol)
        : mLog(open("/tmp/server.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)),
          mServer({"env", "OPENSSL_CONF=/dev/null", "openssl", "s_server", "-accept", "127.0.0.1:4433", protocol,
                   "-cipher", "DEFAULT:@SECLEVEL=0", "-cert", "/tmp/server.pem", "-key", "/tmp/serverkey.pem",
                   "-CAfile", "/tmp/clientca.pem", "-Verify", "2", "-verify_return_error", "-rev"},
                  mLog.get())
    {
        testsupport::comesTrue([] { return connectToServer().valid(); });
    }

private:
    UniqueFd mLog;
    testsupport::ChildProcess mServer;
};

struct Protocol {
    const char* option;
    const char* name;
};

struct Conversation {
    bool connected = false;
    ServerVerdict verdict = ServerVerdict::Refuse;
    std::string protocol;
    std::string echoed;  // what came back for the line that was sent
    std::string error;
};

class TlsHandshakeTest : public testing::TestWithParam<Protocol> {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        for (const char* folder : {"trustedcerts", "certs", "private"}) {
            std::filesystem::create_directories(std::string("/var/ssl/") + folder);
        }
        const Identity server = makeIdentity({"vpn.example", 2}, &mServerCa);
        writeFile("/tmp/server.pem", server.pem());
        writeFile("/tmp/serverkey.pem", server.keyPem());
        writeFile("/tmp/clientca.pem", mClientCa.pem());
        testsupport::installTrusted(mServerCa);
        signal(SIGPIPE, SIG_IGN);
    }

    /// Does what a stream is asked for until it is done or closed. The socket says when to go on.
    template <class Operation>
    static bool finish(const TlsStream& stream, Operation operation)
    {
        for (;;) {
            const TlsStream::Result result = operation();
            if (result == TlsStream::Result::Done || result == TlsStream::Result::Closed)
                return result == TlsStream::Result::Done;
            pollfd watched{stream.descriptor(),
                           static_cast<short>(result == TlsStream::Result::WantsRead ? POLLIN : POLLOUT), 0};
            if (poll(&watched, 1, 20000) != 1) return false;
        }
    }

    /// Connects with the handle's certificate, sends a line and reads one back.
    Conversation talk(ClientCertHandle& handle, const char* password = nullptr)
    {
        Conversation result;
        sampleclient::ClientTls client(handle, password, [&](const auto& server, const auto& intermediates) {
            result.verdict = vpnoalctl::judgeServer(mCertificates, server, intermediates, "vpn.example");
            if (result.verdict == ServerVerdict::Refuse) throw vpnoalctl::CommandError("server", "refused", "");
        });
        UniqueFd socket = connectToServer();
        fcntl(socket.get(), F_SETFL, O_NONBLOCK);
        const auto stream = client.open(std::move(socket));
        result.connected = finish(*stream, [&] { return client.handshake(*stream); });
        result.protocol = stream->protocol();
        result.error = stream->reason();
        const std::string line = "hello\n";
        std::size_t count = 0;
        if (!result.connected || !finish(*stream, [&] { return stream->write(line.data(), line.size(), count); }))
            return result;
        char character = 0;
        while (finish(*stream, [&] { return stream->read(&character, 1, count); }) && character != '\n')
            result.echoed += character;
        stream->shutDown();
        return result;
    }

    void expectConversation(ClientCertHandle& handle, const char* password = nullptr)
    {
        const TlsServer server(GetParam().option);
        const Conversation result = talk(handle, password);
        EXPECT_TRUE(result.connected) << result.error;
        EXPECT_EQ(ServerVerdict::Accept, result.verdict);
        EXPECT_EQ(GetParam().name, result.protocol);
        EXPECT_EQ("olleh", result.echoed);
    }

    ClientCertHandle* onlyHandle()
    {
        unsigned count = 0;
        EXPECT_EQ(PLUGIN_SUCCESS, mCertificates.EnumerateClientCerts(count, nullptr));
        EXPECT_EQ(1u, count);
        ClientCertHandle* handle = nullptr;
        EXPECT_EQ(PLUGIN_SUCCESS, mCertificates.EnumerateClientCerts(count, &handle));
        return handle;
    }

    CertificateInterface mCertificates;
    Identity mServerCa = makeIdentity({"Server CA", 1, true});
    Identity mClientCa = makeIdentity({"Client CA", 3, true});
    Identity mClient = makeIdentity({"client", 4, false, "clientAuth"}, &mClientCa);
};

TEST_P(TlsHandshakeTest, KeyFile)
{
    writeFile("/var/ssl/certs/client.pem", mClient.pem());
    writeFile("/var/ssl/private/rsaclient.pem", mClient.keyPem());
    ClientCertHandle* handle = onlyHandle();
    expectConversation(*handle);
    mCertificates.DisposeClientCertHandle(handle);
}

TEST_P(TlsHandshakeTest, EncryptedKeyFile)
{
    writeFile("/var/ssl/certs/client.pem", mClient.pem());
    writeFile("/var/ssl/private/rsaclient.pem", mClient.keyPem("secret"));
    ClientCertHandle* handle = onlyHandle();
    expectConversation(*handle, "secret");
    mCertificates.DisposeClientCertHandle(handle);
}

TEST_P(TlsHandshakeTest, Pkcs12Bundle)
{
    writeFile("/tmp/client.pfx", mClient.pkcs12("secret"));
    CertElement handle("/tmp/client.pfx", "secret");
    expectConversation(handle);
}

// The control: the server really demands the proof.
TEST_P(TlsHandshakeTest, KeyOfAnotherCertificateDoesNotConnect)
{
    writeFile("/var/ssl/certs/client.pem", mClient.pem());
    writeFile("/var/ssl/private/rsaclient.pem", mClientCa.keyPem());
    ClientCertHandle* handle = onlyHandle();
    const TlsServer server(GetParam().option);
    EXPECT_FALSE(talk(*handle).connected);
    mCertificates.DisposeClientCertHandle(handle);
}

TEST_P(TlsHandshakeTest, ServerThatIsNotTrustedWouldBeAskedAbout)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    writeFile("/tmp/client.pfx", mClient.pkcs12("secret"));
    CertElement handle("/tmp/client.pfx", "secret");
    const TlsServer server(GetParam().option);
    const Conversation result = talk(handle);
    EXPECT_TRUE(result.connected) << result.error;
    EXPECT_EQ(ServerVerdict::Ask, result.verdict);
}

TEST_P(TlsHandshakeTest, RefusedServerGetsNothingAndTheReasonComesOut)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    const Identity nameless = makeIdentity({"", 2}, &mServerCa);
    writeFile("/tmp/server.pem", nameless.pem());
    writeFile("/tmp/client.pfx", mClient.pkcs12("secret"));
    CertElement handle("/tmp/client.pfx", "secret");
    const TlsServer server(GetParam().option);
    EXPECT_THROW(talk(handle), vpnoalctl::CommandError);
}

INSTANTIATE_TEST_SUITE_P(Protocols, TlsHandshakeTest,
                         testing::Values(Protocol{"-tls1", "TLSv1"}, Protocol{"-tls1_1", "TLSv1.1"}),
                         [](const auto& chosen) {
                             return std::string(chosen.param.option) == "-tls1" ? "Tls10" : "Tls11";
                         });

}  // namespace
