// SPDX-License-Identifier: Apache-2.0
//
// What follows from each verdict on a gateway, and who is asked. The verdicts come from a scripted plug-in object.
#include "client/GatewayTrust.h"

#include <gmock/gmock.h>

#include "CertificateAuthority.h"
#include "CommandError.h"

using namespace vpnoalctl;

namespace sampleclient {
namespace {

using testing::HasSubstr;
using testsupport::Identity;
using testsupport::makeIdentity;

TEST(TrustStepTest, TheWholeTable)
{
    const struct {
        ServerVerdict verdict;
        TrustCircumstances circumstances;
        TrustStep step;
    } rows[] = {
        {ServerVerdict::Accept, {false, false, false}, TrustStep::Proceed},
        {ServerVerdict::Accept, {true, true, true}, TrustStep::Proceed},
        {ServerVerdict::Ask, {false, false, false}, TrustStep::Undecided},
        {ServerVerdict::Ask, {false, false, true}, TrustStep::AskUser},
        {ServerVerdict::Ask, {false, true, false}, TrustStep::Proceed},
        {ServerVerdict::Ask, {false, true, true}, TrustStep::Proceed},
        {ServerVerdict::Ask, {true, false, false}, TrustStep::Proceed},
        {ServerVerdict::Ask, {true, false, true}, TrustStep::Proceed},
        {ServerVerdict::Refuse, {false, false, false}, TrustStep::Refuse},
        {ServerVerdict::Refuse, {false, false, true}, TrustStep::Refuse},
        {ServerVerdict::Refuse, {true, true, true}, TrustStep::Refuse},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.step, nextTrustStep(row.verdict, row.circumstances));
}

class ScriptedPlugin : public KEST_CertPlugin {
public:
    bool SupportsInterface(const char*, unsigned int) override { return true; }
    PluginResult GetLastErrorString(char*, unsigned int) override { return PLUGIN_BUFFER_TOO_SMALL; }
    PluginResult VerifyServerCertificate(const unsigned char*, unsigned int, const char* name, bool& prompt) override
    {
        askedName = name;
        if (verdict == ServerVerdict::Ask) prompt = true;
        return verdict == ServerVerdict::Refuse ? PLUGIN_FAILURE : PLUGIN_SUCCESS;
    }
    PluginResult AddVerificationCert(const unsigned char*, unsigned int) override
    {
        ++intermediates;
        return PLUGIN_SUCCESS;
    }
    PluginResult EnumerateClientCerts(unsigned int&, ClientCertHandle**) override { return PLUGIN_FAILURE; }
    PluginResult DisposeClientCertHandle(ClientCertHandle*) override { return PLUGIN_SUCCESS; }
    PluginResult ImportPKCS12(unsigned int, const unsigned char*, const char*, const char*, bool&, bool&,
                              ClientCertHandle*&) override
    {
        return PLUGIN_FAILURE;
    }
    PluginResult ClearVerificationCertificates() override { return PLUGIN_SUCCESS; }

    ServerVerdict verdict = ServerVerdict::Accept;
    std::string askedName;
    int intermediates = 0;
};

class GatewayTrustTest : public testing::Test {
protected:
    GatewayTrust trust(bool acceptAsked = false, bool canAsk = true)
    {
        const auto ask = [this](const std::string& text) {
            mQuestions.push_back(text);
            return mAnswer;
        };
        return {mPlugin, "vpn.example", acceptAsked, canAsk ? GatewayTrust::Question(ask) : nullptr, mLog};
    }
    int exitCodeOf(GatewayTrust& trust, const Identity& server)
    {
        try {
            trust.judge(server.der(), {});
        } catch (const CommandError& error) {
            mError = error.what();
            return error.exitCode();
        }
        return ExitOk;
    }

    ScriptedPlugin mPlugin;
    Output mOutput{stderr, true};
    EventLog mLog{mOutput};
    Identity mServer = makeIdentity({"server", 1});
    std::vector<std::string> mQuestions;
    std::string mError;
    bool mAnswer = false;
};

TEST_F(GatewayTrustTest, AcceptedWithoutAQuestion)
{
    GatewayTrust gateway = trust();
    gateway.judge(mServer.der(), {mServer.der(), mServer.der()});
    EXPECT_EQ("vpn.example", mPlugin.askedName);
    EXPECT_EQ(2, mPlugin.intermediates);
    EXPECT_TRUE(mQuestions.empty());
}

TEST_F(GatewayTrustTest, RefusalCannotBeTalkedOver)
{
    mPlugin.verdict = ServerVerdict::Refuse;
    mAnswer = true;
    GatewayTrust gateway = trust(true, true);
    EXPECT_EQ(ExitRefused, exitCodeOf(gateway, mServer));
    EXPECT_THAT(mError, HasSubstr("gateway.serverName: the plug-in refuses the gateway's certificate: "));
    EXPECT_TRUE(mQuestions.empty());
}

TEST_F(GatewayTrustTest, UserIsAskedOnceForOneCertificate)
{
    mPlugin.verdict = ServerVerdict::Ask;
    mAnswer = true;
    GatewayTrust gateway = trust();
    EXPECT_EQ(ExitOk, exitCodeOf(gateway, mServer));
    ASSERT_EQ(1u, mQuestions.size());
    EXPECT_THAT(mQuestions[0], HasSubstr("The gateway vpn.example cannot be verified: self-signed certificate (18,"));
    EXPECT_THAT(mQuestions[0], HasSubstr("CN=server,O=Test"));
    EXPECT_EQ(ExitOk, exitCodeOf(gateway, mServer));
    EXPECT_EQ(1u, mQuestions.size());
    const Identity other = makeIdentity({"server", 2});
    EXPECT_EQ(ExitOk, exitCodeOf(gateway, other));
    EXPECT_EQ(2u, mQuestions.size());
}

TEST_F(GatewayTrustTest, UserSaysNo)
{
    mPlugin.verdict = ServerVerdict::Ask;
    GatewayTrust gateway = trust();
    EXPECT_EQ(ExitRefused, exitCodeOf(gateway, mServer));
    EXPECT_THAT(mError, HasSubstr("you did not trust the gateway's certificate"));
}

TEST_F(GatewayTrustTest, NobodyToAsk)
{
    mPlugin.verdict = ServerVerdict::Ask;
    GatewayTrust nobody = trust(false, false);
    EXPECT_EQ(ExitAskUser, exitCodeOf(nobody, mServer));
    EXPECT_THAT(mError, HasSubstr("--accept-prompt"));
    GatewayTrust beforehand = trust(true, false);
    EXPECT_EQ(ExitOk, exitCodeOf(beforehand, mServer));
}

}  // namespace
}  // namespace sampleclient
