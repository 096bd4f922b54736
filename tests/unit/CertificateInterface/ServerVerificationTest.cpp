// SPDX-License-Identifier: Apache-2.0
//
// Judging server certificates: every class of chain, date, store and name.
#include <gmock/gmock.h>

#include <filesystem>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeVkLog.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testsupport::CertificateOptions;
using testsupport::Identity;
using testsupport::installTrusted;
using testsupport::makeIdentity;

struct Judgement {
    PluginResult result;
    bool promptUser;

    bool operator==(const Judgement& other) const { return result == other.result && promptUser == other.promptUser; }
};

std::ostream& operator<<(std::ostream& stream, const Judgement& judgement)
{
    return stream << judgement.result << (judgement.promptUser ? " asking" : " not asking");
}

constexpr Judgement accept{PLUGIN_SUCCESS, false};
constexpr Judgement ask{PLUGIN_SUCCESS, true};
constexpr Judgement refuse{PLUGIN_FAILURE, false};

class ServerVerificationTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        std::filesystem::create_directories("/var/ssl/trustedcerts");
        fakes::clearLog();
    }

    Judgement judge(const Identity& server, const char* name = "vpn.example", bool promptBefore = false)
    {
        const std::vector<unsigned char> der = server.der();
        bool promptUser = promptBefore;
        const PluginResult result =
            mInterface.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()), name, promptUser);
        return {result, promptUser};
    }

    void addIntermediate(const Identity& identity)
    {
        const std::vector<unsigned char> der = identity.der();
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(der.data(), static_cast<unsigned>(der.size())));
    }

    static fakes::LogLine error(const std::string& text) { return {3, "VerifyServerCertificate: " + text}; }
    static fakes::LogLine debug(const std::string& text) { return {7, "VerifyServerCertificate: " + text}; }

    CertificateInterface mInterface;
    Identity mRoot = makeIdentity({"Test Root", 1, true});
    Identity mUnknownRoot = makeIdentity({"Unknown Root", 2, true});
};

TEST_F(ServerVerificationTest, ChainToAnInstalledRootIsAcceptedWhateverTheName)
{
    installTrusted(mRoot);
    const Identity server = makeIdentity({"vpn.example"}, &mRoot);
    EXPECT_EQ(accept, judge(server));
    EXPECT_EQ(accept, judge(server, "other.example"));
    EXPECT_EQ(accept, judge(server, nullptr));
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(ServerVerificationTest, AcceptanceLeavesTheCallersPromptAlone)
{
    installTrusted(mRoot);
    EXPECT_EQ((Judgement{PLUGIN_SUCCESS, true}), judge(makeIdentity({"vpn.example"}, &mRoot), "vpn.example", true));
}

TEST_F(ServerVerificationTest, UnparsableCertificateIsRefusedAndDropsPendingIntermediates)
{
    installTrusted(mRoot);
    const Identity intermediate = makeIdentity({"Intermediate", 3, true}, &mRoot);
    const Identity server = makeIdentity({"vpn.example"}, &intermediate);
    addIntermediate(intermediate);
    const unsigned char garbage[] = {0x30, 0x82, 0xff};
    bool promptUser = true;
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.VerifyServerCertificate(garbage, sizeof garbage, "vpn.example", promptUser));
    EXPECT_TRUE(promptUser);
    EXPECT_THAT(fakes::logLines(), Contains(error("error: invalid server cert")));
    EXPECT_EQ(ask, judge(server));
}

TEST_F(ServerVerificationTest, NullCertificateIsRefused)
{
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.VerifyServerCertificate(nullptr, 10, nullptr, promptUser));
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.VerifyServerCertificate(nullptr, 0, nullptr, promptUser));
}

TEST_F(ServerVerificationTest, IntermediatesServeOneVerificationOnly)
{
    installTrusted(mRoot);
    const Identity intermediate = makeIdentity({"Intermediate", 3, true}, &mRoot);
    const Identity server = makeIdentity({"vpn.example"}, &intermediate);
    addIntermediate(intermediate);
    EXPECT_EQ(accept, judge(server));
    EXPECT_EQ(ask, judge(server));
}

TEST_F(ServerVerificationTest, IntermediatesGiveNoTrust)
{
    const Identity server = makeIdentity({"vpn.example"}, &mUnknownRoot);
    addIntermediate(mUnknownRoot);
    EXPECT_EQ(ask, judge(server));
    EXPECT_THAT(fakes::logLines(), Contains(debug("self signed cert in chain")));
}

TEST_F(ServerVerificationTest, ClearedIntermediatesAreGone)
{
    installTrusted(mRoot);
    const Identity intermediate = makeIdentity({"Intermediate", 3, true}, &mRoot);
    addIntermediate(intermediate);
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.ClearVerificationCertificates());
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example"}, &intermediate)));
}

TEST_F(ServerVerificationTest, EmptyIntermediateIsDroppedInSilence)
{
    const unsigned char nothing = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(&nothing, 0));
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(nullptr, 0));
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(nullptr, 5));
    EXPECT_THAT(fakes::logLines(),
                testing::Each(fakes::LogLine{7, "CertificateInterface::AddVerificationCert: Called!"}));
}

TEST_F(ServerVerificationTest, ExpiredCertificateOfAGoodChainIsRefused)
{
    installTrusted(mRoot);
    CertificateOptions options{"vpn.example"};
    options.notBefore = -7200;
    options.notAfter = -3600;
    EXPECT_EQ(refuse, judge(makeIdentity(options, &mRoot)));
    const std::vector<fakes::LogLine> expected = {
        error("Prompt User... Server Certificate Warning: 10 certificate has expired"),
        error("Server Certificate Expired. notBefore(-1), notAfter(-1)"),
    };
    EXPECT_EQ(expected, fakes::logLines(3));
}

TEST_F(ServerVerificationTest, CertificateNotYetValidIsRefused)
{
    installTrusted(mRoot);
    CertificateOptions options{"vpn.example"};
    options.notBefore = 3600;
    EXPECT_EQ(refuse, judge(makeIdentity(options, &mRoot)));
    const std::vector<fakes::LogLine> expected = {
        error("Prompt User... Server Certificate Warning: 9 certificate is not yet valid"),
        error("Server Certificate Expired. notBefore(1), notAfter(1)"),
    };
    EXPECT_EQ(expected, fakes::logLines(3));
}

TEST_F(ServerVerificationTest, UnreadableValidityTimesAreRefused)
{
    installTrusted(mRoot);
    for (const bool isBegin : {true, false}) {
        const Identity server = makeIdentity({"vpn.example"}, &mRoot);
        X509* const certificate = server.certificate.get();
        ASN1_STRING_set(isBegin ? X509_getm_notBefore(certificate) : X509_getm_notAfter(certificate), "20250101000Z",
                        12);
        testsupport::signAgain(certificate, mRoot.key.get());
        EXPECT_EQ(refuse, judge(server));
        // Newer versions of OpenSSL do not even read such a certificate.
        const std::vector<unsigned char> bytes = server.der();
        const unsigned char* at = bytes.data();
        const X509Ptr read(d2i_X509(nullptr, &at, static_cast<long>(bytes.size())));
        const std::string times = isBegin ? "notBefore(0), notAfter(1)" : "notBefore(-1), notAfter(0)";
        EXPECT_THAT(fakes::logLines(),
                    Contains(error(read ? "Error while comparing ceritifcate validity times. " + times
                                        : "error: invalid server cert")));
        fakes::clearLog();
        const fakes::ClosedLog closed;
        EXPECT_EQ(refuse, judge(server));
        EXPECT_EQ(std::vector<fakes::LogLine>(), fakes::logLines());
    }
}

TEST_F(ServerVerificationTest, MissingIssuerOfAnInstalledIntermediateAsks)
{
    const Identity intermediate = makeIdentity({"Intermediate", 3, true}, &mUnknownRoot);
    installTrusted(intermediate);
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example"}, &intermediate)));
    EXPECT_THAT(fakes::logLines(3),
                Contains(error("Prompt User... Server Certificate Warning: 2 unable to get issuer certificate")));
}

TEST_F(ServerVerificationTest, CertificateForAnotherPurposeAsks)
{
    installTrusted(mRoot);
    CertificateOptions options{"vpn.example"};
    options.extendedKeyUsage = "clientAuth";
    EXPECT_EQ(ask, judge(makeIdentity(options, &mRoot)));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Prompt User... Server Certificate Warning: 26 "
                                                   "unsuitable certificate purpose")));
}

TEST_F(ServerVerificationTest, IssuerThatIsNoCaAsks)
{
    installTrusted(mRoot);
    const Identity notCa = makeIdentity({"Not A CA", 3, false, ""}, &mRoot);
    addIntermediate(notCa);
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example"}, &notCa)));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Prompt User... Server Certificate Warning: 79 invalid CA "
                                                   "certificate")));
}

// The subject is installed, the name is the one asked for: the question stays all the same.
TEST_F(ServerVerificationTest, AskingCodesAskAlsoWhenTheSubjectIsInstalledAndTheNameMatches)
{
    installTrusted(mRoot);
    installTrusted(makeIdentity({"vpn.example", 5}));
    CertificateOptions clientOnly{"vpn.example", 6};
    clientOnly.extendedKeyUsage = "clientAuth";
    EXPECT_EQ(ask, judge(makeIdentity(clientOnly, &mRoot)));
    const Identity notCa = makeIdentity({"Not A CA", 3, false, ""}, &mRoot);
    addIntermediate(notCa);
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}, &notCa)));
    const Identity intermediate = makeIdentity({"Intermediate", 4, true}, &mUnknownRoot);
    installTrusted(intermediate);
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}, &intermediate)));
    const std::vector<fakes::LogLine> expected = {
        error("Prompt User... Server Certificate Warning: 26 unsuitable certificate purpose"),
        error("Prompt User... Server Certificate Warning: 79 invalid CA certificate"),
        error("Prompt User... Server Certificate Warning: 2 unable to get issuer certificate"),
    };
    EXPECT_EQ(expected, fakes::logLines(3));
    EXPECT_THAT(fakes::logLines(), Contains(debug("server name verification succeeded")).Times(3));
}

TEST_F(ServerVerificationTest, SelfSignedCertificateOutOfDateIsRefusedAlsoWhenItIsInstalled)
{
    CertificateOptions expired{"vpn.example", 6};
    expired.notBefore = -7200;
    expired.notAfter = -3600;
    CertificateOptions early{"vpn.example", 6};
    early.notBefore = 3600;
    EXPECT_EQ(refuse, judge(makeIdentity(expired)));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Server Certificate Expired. notBefore(-1), notAfter(-1)")));
    EXPECT_EQ(refuse, judge(makeIdentity(early)));
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(refuse, judge(makeIdentity(expired)));
    EXPECT_EQ(refuse, judge(makeIdentity(early)));
    const Identity installed = makeIdentity(expired);
    installTrusted(installed);
    EXPECT_EQ(refuse, judge(installed));
}

TEST_F(ServerVerificationTest, SelfSignedServerThatIsNotInstalledAsks)
{
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example"})));
    EXPECT_THAT(fakes::logLines(), Contains(debug("zero depth self signed cert")));
    EXPECT_THAT(fakes::logLines(), Contains(debug("Matching Certificate not found in store")));
}

TEST_F(ServerVerificationTest, SelfSignedServerWhoseSubjectIsInstalledAndWhoseNameMatchesIsAccepted)
{
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(accept, judge(makeIdentity({"vpn.example", 6})));
    EXPECT_THAT(fakes::logLines(), Contains(debug("server name verification succeeded")));
    EXPECT_THAT(fakes::logLines(),
                Contains(debug("input server name: vpn.example\n server name found in cert: vpn.example")));
}

TEST_F(ServerVerificationTest, NameComparisonIgnoresCase)
{
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(accept, judge(makeIdentity({"vpn.example", 6}), "VPN.EXAMPLE"));
}

TEST_F(ServerVerificationTest, InstalledSubjectWithAnotherNameAsks)
{
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}), "other.example"));
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}), nullptr));
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}), "vpn.example.org"));
    EXPECT_THAT(fakes::logLines(3), Contains(error("server name verification failed")));
}

TEST_F(ServerVerificationTest, HardErrorStaysRefusedWhenSubjectIsInstalledAndNameMatches)
{
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(refuse, judge(makeIdentity({"vpn.example", 6}, &mUnknownRoot)));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Server Certificate verification failed: unable to get local "
                                                   "issuer certificate")));
}

TEST_F(ServerVerificationTest, HardErrorAsksWhenSubjectIsNotInstalledOrNameDiffers)
{
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}, &mUnknownRoot)));
    installTrusted(makeIdentity({"vpn.example", 5}));
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example", 6}, &mUnknownRoot), "other.example"));
}

TEST_F(ServerVerificationTest, CertificateWithoutCommonNameIsRefusedAndPromptKeepsWhatTheChainSet)
{
    installTrusted(mRoot);
    CertificateOptions options;
    options.extendedKeyUsage = "clientAuth";
    EXPECT_EQ((Judgement{PLUGIN_FAILURE, true}), judge(makeIdentity(options, &mRoot)));
    EXPECT_THAT(fakes::logLines(3), Contains(error("unable to retrieve server name from certificate")));
    EXPECT_EQ((Judgement{PLUGIN_FAILURE, false}), judge(makeIdentity(CertificateOptions{}), "vpn.example", true));
}

TEST_F(ServerVerificationTest, CommonNameWithANulInsideAsksInsteadOfAccepting)
{
    const std::string name("vpn.example\0.attacker.example", 29);
    installTrusted(makeIdentity({name, 5}));
    EXPECT_EQ(ask, judge(makeIdentity({name, 6}), "vpn.example"));
    EXPECT_THAT(fakes::logLines(3), Contains(error("server name verification failed")));
}

TEST_F(ServerVerificationTest, CommonNameWithANulBehindTheCutAsksInsteadOfAccepting)
{
    const std::string shown(255, 'a');
    const std::string name = shown + std::string("\0.attacker.example", 18);
    installTrusted(makeIdentity({name, 5}));
    EXPECT_EQ(ask, judge(makeIdentity({name, 6}), shown.c_str()));
}

TEST_F(ServerVerificationTest, CommonNameWithANulInsideLeavesARefusalARefusal)
{
    const std::string name("vpn.example\0.attacker.example", 29);
    installTrusted(makeIdentity({name, 5}));
    EXPECT_EQ(refuse, judge(makeIdentity({name, 6}, &mUnknownRoot), "vpn.example"));
    EXPECT_EQ(refuse, judge(makeIdentity({name, 6}, &mUnknownRoot), "VPN.example"));
    EXPECT_EQ(ask, judge(makeIdentity({name, 6}, &mUnknownRoot), "other.example"));
}

TEST_F(ServerVerificationTest, CommonNameWithANulInsideLeavesAQuestionAQuestion)
{
    const std::string name("vpn.example\0.attacker.example", 29);
    installTrusted(mRoot);
    installTrusted(makeIdentity({name, 5}));
    CertificateOptions options{name, 6};
    options.extendedKeyUsage = "clientAuth";
    EXPECT_EQ(ask, judge(makeIdentity(options, &mRoot), "vpn.example"));
}

// What verifies is accepted whatever its name.
TEST_F(ServerVerificationTest, CommonNameWithANulInsideOfAGoodChainIsNotLookedAt)
{
    installTrusted(mRoot);
    EXPECT_EQ(accept, judge(makeIdentity({std::string("vpn.example\0.x", 14)}, &mRoot)));
}

TEST_F(ServerVerificationTest, CommonNameOf255AndMoreCharactersStaysInTheBuffer)
{
    for (const std::size_t length : {254u, 255u, 256u, 1000u}) {
        EXPECT_EQ(ask, judge(makeIdentity({std::string(length, 'a'), 6})));
    }
}

TEST_F(ServerVerificationTest, CommonNameIsComparedUpToItsFirst255Characters)
{
    const std::string first255(255, 'a');
    for (const std::size_t length : {255u, 256u, 300u}) {
        const std::string name(length, 'a');
        installTrusted(makeIdentity({name, 5}));
        const Identity server = makeIdentity({name, 6});
        EXPECT_EQ(accept, judge(server, first255.c_str())) << length;
        EXPECT_EQ(ask, judge(server, (first255 + "a").c_str())) << length;
        EXPECT_EQ(ask, judge(server, std::string(254, 'a').c_str())) << length;
    }
}

TEST_F(ServerVerificationTest, MissingTrustDirectoryIsLoggedAndVerificationProceeds)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    EXPECT_EQ(ask, judge(makeIdentity({"vpn.example"})));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Failed to load trusted certs")));
    EXPECT_THAT(fakes::logLines(), Contains(debug("zero depth self signed cert")));
}

TEST_F(ServerVerificationTest, SubjectIsOnlyRenderedWhenDebugIsOn)
{
    const Identity server = makeIdentity({"vpn.example"});
    judge(server);
    EXPECT_THAT(fakes::logLines(),
                Contains(fakes::LogLine{7, "VerifyServerCertificate verifying server name: /O=Test/CN=vpn.example"}));
    fakes::clearLog();
    fakes::logContext().level = 6;
    judge(server);
    fakes::logContext().level = 7;
    EXPECT_THAT(fakes::logLines(7), IsEmpty());
}

TEST_F(ServerVerificationTest, PemFileGivesItsCertificatesInOrderAndNothingElse)
{
    const Identity other = makeIdentity({"other.example", 6});
    testsupport::writeFile("/tmp/chain.pem", mRoot.pem() + mRoot.keyPem() + other.pem());
    const X509StackPtr stack(sk_X509_new_null());
    EXPECT_TRUE(CertificateInterface::x509StackFromPEMFile("/tmp/chain.pem", stack.get()));
    ASSERT_EQ(2, sk_X509_num(stack.get()));
    EXPECT_EQ(0, X509_cmp(mRoot.certificate.get(), sk_X509_value(stack.get(), 0)));
    EXPECT_EQ(0, X509_cmp(other.certificate.get(), sk_X509_value(stack.get(), 1)));
}

TEST_F(ServerVerificationTest, PemFileThatCannotBeReadOrConverted)
{
    const X509StackPtr stack(sk_X509_new_null());
    EXPECT_FALSE(CertificateInterface::x509StackFromPEMFile("/tmp/none.pem", stack.get()));
    testsupport::writeFile("/tmp/broken.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    EXPECT_FALSE(CertificateInterface::x509StackFromPEMFile("/tmp/broken.pem", stack.get()));
    EXPECT_EQ(0, sk_X509_num(stack.get()));
    const std::vector<fakes::LogLine> expected = {
        {3, "x509StackFromPEMFile: Could not read file: /tmp/none.pem. Please check file permissions."},
        {3, "x509StackFromPEMFile: Failed to convert file: /tmp/broken.pem to X509 certificates."},
    };
    EXPECT_EQ(expected, fakes::logLines(3));
}

}  // namespace
