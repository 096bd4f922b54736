// SPDX-License-Identifier: Apache-2.0
//
// Real TLS 1.0 and 1.1 handshakes with "openssl s_server", which demands a client certificate: listing, DER form and
// signature from end to end, for every way in which a key is kept.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "ChildProcess.h"
#include "TlsClient.h"
#include "handles/UniqueFd.h"

namespace {

using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::talkOverTls;
using testsupport::TlsOptions;
using testsupport::TlsResult;
using testsupport::writeFile;

constexpr int port = 4433;

bool isListening()
{
    const UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
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
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!isListening() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

private:
    UniqueFd mLog;
    testsupport::ChildProcess mServer;
};

struct Protocol {
    const char* option;
    int version;
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

    void expectConversation(ClientCertHandle& handle, const char* password = nullptr)
    {
        const TlsServer server(GetParam().option);
        TlsOptions options;
        options.protocol = GetParam().version;
        options.port = port;
        options.keyPassword = password;
        const TlsResult result = talkOverTls(mCertificates, handle, options, "hello");
        EXPECT_TRUE(result.connected) << result.error;
        EXPECT_FALSE(result.asked);
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
    TlsOptions options;
    options.protocol = GetParam().version;
    options.port = port;
    EXPECT_FALSE(talkOverTls(mCertificates, *handle, options, "hello").connected);
    mCertificates.DisposeClientCertHandle(handle);
}

TEST_P(TlsHandshakeTest, ServerThatIsNotTrustedWouldBeAskedAbout)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    writeFile("/tmp/client.pfx", mClient.pkcs12("secret"));
    CertElement handle("/tmp/client.pfx", "secret");
    const TlsServer server(GetParam().option);
    TlsOptions options;
    options.protocol = GetParam().version;
    options.port = port;
    const TlsResult result = talkOverTls(mCertificates, handle, options, "hello");
    EXPECT_TRUE(result.connected) << result.error;
    EXPECT_TRUE(result.asked);
}

INSTANTIATE_TEST_SUITE_P(Protocols, TlsHandshakeTest,
                         testing::Values(Protocol{"-tls1", TLS1_VERSION}, Protocol{"-tls1_1", TLS1_1_VERSION}),
                         [](const auto& chosen) { return chosen.param.version == TLS1_VERSION ? "Tls10" : "Tls11"; });

}  // namespace
