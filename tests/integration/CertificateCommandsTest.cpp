// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl verify and certs, run as a user runs them, with the plug-in of this build.
#include <gmock/gmock.h>
#include <openssl/objects.h>

#include <filesystem>

#include "CertificateAuthority.h"
#include "ChildProcess.h"
#include "Shell.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testsupport::CommandResult;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

class CertificateCommandsTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        for (const char* folder : {"trustedcerts", "certs", "private"}) {
            std::filesystem::create_directories(std::string("/var/ssl/") + folder);
        }
    }

    static CommandResult ctl(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), WFOAL_BUILD_DIR "/bin/vpnoalctl");
        return testsupport::runCommand(arguments);
    }

    static void expectBadInput(const std::vector<std::string>& arguments, const std::string& named)
    {
        const CommandResult result = ctl(arguments);
        EXPECT_EQ(2, result.status) << result.output;
        EXPECT_THAT(result.output, HasSubstr("vpnoalctl: " + named));
    }

    void installClient()
    {
        writeFile("/var/ssl/certs/client.pem", mClient.pem());
        writeFile("/var/ssl/private/rsaclient.pem", mClient.keyPem("secret"));
    }

    Identity mRoot = makeIdentity({"Test Root", 1, true});
    Identity mIntermediate = makeIdentity({"Intermediate", 2, true}, &mRoot);
    Identity mServer = makeIdentity({"vpn.example", 3}, &mIntermediate);
    Identity mClient = makeIdentity({"client", 4});
};

TEST_F(CertificateCommandsTest, VerdictInWordsWithReasonAndChain)
{
    testsupport::installTrusted(mRoot);
    writeFile("/tmp/server.pem", mServer.pem());
    writeFile("/tmp/intermediate.der", mIntermediate.der());
    CommandResult result = ctl({"verify", "/tmp/server.pem", "--intermediate", "/tmp/intermediate.der"});
    EXPECT_EQ(0, result.status);
    EXPECT_THAT(result.output, AllOf(HasSubstr("accept without asking"), HasSubstr("CN=vpn.example"),
                                     HasSubstr("CN=Intermediate"), HasSubstr("CN=Test Root")));
    result = ctl({"verify", "/tmp/server.pem"});
    EXPECT_EQ(4, result.status);
    EXPECT_THAT(result.output, AllOf(HasSubstr("ask the user"), HasSubstr("unable to get local issuer certificate")));
}

TEST_F(CertificateCommandsTest, SystemWithoutCertificatesHasAnEmptyList)
{
    for (const char* folder : {"/var/ssl/certs", "/var/ssl"}) {
        std::filesystem::remove_all(folder);
        const CommandResult result = ctl({"certs", "list"});
        EXPECT_EQ(0, result.status) << folder;
        EXPECT_EQ("No client certificates; 'vpnoalctl certs import' installs one.\n", result.output) << folder;
        EXPECT_EQ("[]\n", ctl({"certs", "list", "--json"}).output) << folder;
    }
    const CommandResult chosen = ctl({"certs", "show", "Jane Doe"});
    EXPECT_EQ(2, chosen.status);
    EXPECT_EQ(
        "vpnoalctl: Jane Doe: no certificate has this name, number or fingerprint; 'vpnoalctl certs list' shows what "
        "there is\n",
        chosen.output);
}

TEST_F(CertificateCommandsTest, FolderThatCannotBeListedIsAFailure)
{
    std::filesystem::remove_all("/var/ssl/certs");
    writeFile("/var/ssl/certs", "");
    const CommandResult result = ctl({"certs", "list"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: certs: the client certificates cannot be listed; "));
}

TEST_F(CertificateCommandsTest, RefusalIsExitCodeFive)
{
    testsupport::installTrusted(mRoot);
    testsupport::CertificateOptions expired{"vpn.example", 3};
    expired.notAfter = -60;
    writeFile("/tmp/server.pem", makeIdentity(expired, &mRoot).pem());
    const CommandResult result = ctl({"--json", "verify", "/tmp/server.pem", "--name", "vpn.example"});
    EXPECT_EQ(5, result.status);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("\"verdict\":\"refuse\""), HasSubstr("\"reason\":\"certificate has expired\"")));
}

TEST_F(CertificateCommandsTest, ListShowsNumberSubjectAndFingerprint)
{
    EXPECT_THAT(ctl({"certs", "list"}).output, HasSubstr("No client certificates"));
    EXPECT_THAT(ctl({"--json", "certs", "list"}).output, HasSubstr("[]"));
    installClient();
    EXPECT_THAT(ctl({"certs", "list"}).output, AllOf(HasSubstr("     1  CN=client,O=Test"), HasSubstr("FINGERPRINT")));
    EXPECT_THAT(ctl({"certs", "show", "1"}).output, HasSubstr("-----END CERTIFICATE-----"));
    expectBadInput({"certs", "show", "2"}, "2: no certificate has this name or number");
    expectBadInput({"certs", "show", "ffffffffffffffffff"},
                   "ffffffffffffffffff: no certificate has this name, number or");
}

TEST_F(CertificateCommandsTest, FingerprintThatIsOfferedNamesTheCertificate)
{
    const auto complete = [](const std::string& words) {  // as the shells' scripts do it
        return testsupport::shell("(" WFOAL_BUILD_DIR "/bin/vpnoalctl __complete " + words + " 2>/dev/null)");
    };
    EXPECT_EQ("", complete("certs show ''"));
    installClient();
    std::string offered = complete("certs show ''");
    ASSERT_THAT(offered, testing::MatchesRegex("[0-9a-f]{16}\n"));
    offered.pop_back();
    EXPECT_THAT(ctl({"--json", "certs", "show", offered}).output,
                AllOf(HasSubstr(R"({"subject":"CN=client,O=Test","issuer":)"), HasSubstr(R"("notAfter":)"),
                      HasSubstr("\"fingerprint\":\"" + offered), HasSubstr(R"("pem":"-----BEGIN CERTIFICATE-----\n)")));
    EXPECT_EQ("", complete("--plugin /nowhere.so certs show ''"));
}

TEST_F(CertificateCommandsTest, SignatureIsThatOfTheKey)
{
    installClient();
    writeFile("/tmp/message", std::string("hello"));
    writeFile("/tmp/password", std::string("secret\n"));
    EXPECT_EQ(1, ctl({"certs", "sign", "1", "/tmp/message"}).status);
    const CommandResult result = ctl({"certs", "sign", "1", "/tmp/message", "--password-file", "/tmp/password"});
    ASSERT_EQ(0, result.status) << result.output;

    std::vector<unsigned char> signature;
    for (std::size_t i = 0; i + 1 < result.output.size(); i += 2) {
        signature.push_back(static_cast<unsigned char>(std::stoi(result.output.substr(i, 2), nullptr, 16)));
    }
    unsigned char hash[36];
    unsigned int length = 0;
    EVP_Digest("hello", 5, hash, &length, EVP_md5_sha1(), nullptr);
    const RsaPtr key(EVP_PKEY_get1_RSA(mClient.key.get()));
    EXPECT_EQ(1, RSA_verify(NID_md5_sha1, hash, length, signature.data(), static_cast<unsigned>(signature.size()),
                            key.get()));
}

TEST_F(CertificateCommandsTest, RemovedCertificateGoesWithItsKey)
{
    installClient();
    const CommandResult result = ctl({"certs", "rm", "client"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("CN=client,O=Test: removed with its key.\n", result.output);
    EXPECT_TRUE(std::filesystem::is_empty("/var/ssl/private"));
    EXPECT_TRUE(std::filesystem::is_empty("/var/ssl/certs"));
    EXPECT_EQ(2, ctl({"certs", "rm", "client"}).status);
}

TEST_F(CertificateCommandsTest, TrustedRootIsWhatTheVerdictGoesBy)
{
    writeFile("/tmp/server.pem", mServer.pem());
    writeFile("/tmp/intermediate.der", mIntermediate.der());
    writeFile("/tmp/root.pem", mRoot.pem());
    const auto verdict = [] {
        return ctl({"verify", "/tmp/server.pem", "--intermediate", "/tmp/intermediate.der"}).status;
    };
    EXPECT_EQ(4, verdict());
    CommandResult result = ctl({"certs", "trust", "/tmp/root.pem"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ("CN=Test Root,O=Test: trusted.\n", result.output);
    EXPECT_EQ(0, verdict());
    EXPECT_EQ("CN=Test Root,O=Test: trusted already.\n", ctl({"certs", "trust", "/tmp/root.pem"}).output);
    result = ctl({"--json", "certs", "trust"});
    EXPECT_THAT(result.output, AllOf(HasSubstr("\"subject\":\"CN=Test Root,O=Test\""), HasSubstr(".0\"")));
    EXPECT_EQ("CN=Test Root,O=Test: no longer trusted.\n", ctl({"certs", "trust", "--remove", "/tmp/root.pem"}).output);
    EXPECT_EQ(4, verdict());
    result = ctl({"certs", "trust", "--remove", "/tmp/root.pem"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("is not among the trusted certificates"));
    EXPECT_EQ("No gateway is trusted; 'vpnoalctl certs trust FILE' installs a root.\n", ctl({"certs", "trust"}).output);
}

TEST_F(CertificateCommandsTest, RootsOfTheSameSubjectStandSideBySide)
{
    const auto other = makeIdentity({"Test Root", 9, true});
    writeFile("/tmp/root.pem", mRoot.pem());
    writeFile("/tmp/other.pem", other.pem());
    EXPECT_EQ(0, ctl({"certs", "trust", "/tmp/root.pem"}).status);
    EXPECT_EQ(0, ctl({"certs", "trust", "/tmp/other.pem"}).status);
    EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator("/var/ssl/trustedcerts"), {}));
}

TEST_F(CertificateCommandsTest, GatewaysOwnCertificateIsNoRoot)
{
    writeFile("/tmp/server.pem", mServer.pem());
    expectBadInput({"certs", "trust", "/tmp/server.pem"}, "/tmp/server.pem: is no certificate of an authority");
    expectBadInput({"certs", "trust", "--remove"}, "--remove, --force: need a FILE");
    EXPECT_EQ(0, ctl({"certs", "trust", "--force", "/tmp/server.pem"}).status);
}

TEST_F(CertificateCommandsTest, BadInputIsNamed)
{
    expectBadInput({"verify", "/tmp/none.pem"}, "/tmp/none.pem: No such file or directory");
    writeFile("/tmp/text", std::string("no certificate"));
    expectBadInput({"verify", "/tmp/text"}, "/tmp/text: is no certificate");
    writeFile("/tmp/huge", std::string(1024 * 1024 + 1, 'x'));
    expectBadInput({"verify", "/tmp/huge"}, "/tmp/huge: the file is larger");
    expectBadInput({"certs", "import", "/tmp/huge"}, "/tmp/huge: the file is larger");
    expectBadInput({"certs", "import", "/tmp"}, "/tmp: Is a directory");
    std::string encrypted = mServer.pem();
    encrypted.insert(encrypted.find('\n') + 1,
                     "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00112233445566778899AABBCCDDEEFF\n\n");
    writeFile("/tmp/encrypted", encrypted);
    expectBadInput({"verify", "/tmp/encrypted"}, "/tmp/encrypted: is no certificate");
}

}  // namespace
