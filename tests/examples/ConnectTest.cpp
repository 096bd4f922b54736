// SPDX-License-Identifier: Apache-2.0
//
// How the sample client connects: steps, trust in the gateway, and who the user is.
#include "SampleConnection.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testsupport::CommandResult;
using testsupport::eventsIn;
using testsupport::Identity;
using testsupport::LineProcess;
using testsupport::makeIdentity;
using testsupport::shell;
using testsupport::writeFile;

class ConnectTest : public testsupport::SampleConnection {};

TEST_F(ConnectTest, StepsOfAConnectionInOrder)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(eventsIn(agent.output),
                ElementsAre("certificate", "interface", "bound", "verdict", "handshake", "configured", "connected"));
    EXPECT_THAT(outerConnection(), HasSubstr("192.0.2.10%eth0:"));
    EXPECT_TRUE(mGateway->await("client CN=Jane Doe,O=Test from 192.0.2.10:"));
    expectPing();
    EXPECT_THAT(shell("ip route"), HasSubstr("10.20.0.0/16 via 10.8.0.1 dev norvatun0"));
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("tcp dport 7 drop"));
    EXPECT_EQ(0, agent.end());
    EXPECT_EQ("restored", eventsIn(agent.output).back());
}

TEST_F(ConnectTest, CommandRunsWhileConnectedAndItsStatusCounts)
{
    startGoodGateway();
    const CommandResult result = run({"--exec", "ping -n -q -c 1 -W 5 10.8.0.1 && exit 17"});
    EXPECT_EQ(17, result.status) << result.output;
}

TEST_F(ConnectTest, GatewayThatNobodyIsAskedAboutIsNotTrusted)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = run();
    EXPECT_EQ(4, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("\"verdict\":\"ask\""));
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway.serverName: "));
    EXPECT_THAT(eventsIn(result.output), ElementsAre("certificate", "interface", "bound", "verdict"));
    EXPECT_TRUE(mGateway->await("turned away"));
}

TEST_F(ConnectTest, GatewayThatIsTrustedBeforehand)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    EXPECT_EQ(0, run({"--accept-prompt", "--exec", "true"}).status);
}

TEST_F(ConnectTest, UserSaysYesAtTheTerminal)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = runAtTerminal("y");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("Trust it for this connection?"));
    EXPECT_THAT(result.output, HasSubstr("\"event\":\"connected\""));
}

TEST_F(ConnectTest, UserSaysNoAtTheTerminal)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = runAtTerminal("no");
    EXPECT_EQ(5, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("you did not trust the gateway's certificate"));
    EXPECT_THAT(result.output, Not(HasSubstr("\"event\":\"connected\"")));
}

TEST_F(ConnectTest, RefusedGatewayIsRefusedWhateverTheUserSaid)
{
    startGateway(makeIdentity({"vpn.example", 2, false, "serverAuth", -7200, -3600}, &mServerCa));
    const CommandResult result = run({"--accept-prompt"});
    EXPECT_EQ(5, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("the plug-in refuses the gateway's certificate: certificate has expired"));
}

TEST_F(ConnectTest, GatewayThatKnowsAnotherAuthority)
{
    startGoodGateway();
    installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mServerCa));
    const CommandResult result = run();
    EXPECT_EQ(1, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway: the TLS handshake failed: "));
    EXPECT_THAT(result.output, HasSubstr("alert unknown ca"));
}

TEST_F(ConnectTest, NoGatewayAndNoNetwork)
{
    CommandResult result = run();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway 198.51.100.2:443 through eth0: Connection refused; "));
    shell("ip route del default dev eth0; ip route del default dev rmnet0");
    result = run();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway: there is no network to reach it through; "));
    wifiRoute();
    shell("ip route add default via 203.0.113.1 dev rmnet0 metric 700");
}

TEST_F(ConnectTest, InterruptedWhileTheGatewayIsSilent)
{
    startGoodGateway();
    mGateway->sendSignal(SIGSTOP);
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("bound")) << agent.output;
    EXPECT_EQ(1, agent.end());
    EXPECT_THAT(agent.output, HasSubstr("interrupted before the tunnel was up; nothing was changed"));
    mGateway->sendSignal(SIGCONT);
}

TEST_F(ConnectTest, EncryptedKeyNeedsItsPassword)
{
    startGoodGateway();
    installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mClientCa), "open sesame");
    CommandResult result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("sampleclient: gateway.certificate: its key cannot be used without a password"));

    writeFile("/tmp/password", std::string("open barley\n"));
    writeProfiles(R"("passwordFile":"/tmp/password")");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway.passwordFile: the certificate's key does not open"));
    EXPECT_THAT(result.output, Not(HasSubstr("barley")));

    writeFile("/tmp/password", std::string("open sesame\n"));
    result = run({"-v", "--exec", "true"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, Not(HasSubstr("sesame")));

    writeProfiles(R"("passwordVariable":"JANES_PASSWORD")");
    setenv("JANES_PASSWORD", "open sesame", 1);
    EXPECT_EQ(0, run({"--exec", "true"}).status);
    unsetenv("JANES_PASSWORD");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("sampleclient: gateway.passwordVariable: there is no variable JANES_PASSWORD"));
}

TEST_F(ConnectTest, CertificateIsChosenByName)
{
    startGoodGateway();
    const Identity other = makeIdentity({"John Doe", 5, false, "clientAuth"}, &mClientCa);
    writeFile("/var/ssl/certs/other.pem", other.pem());
    writeFile("/var/ssl/private/rsaother.pem", other.keyPem());
    CommandResult result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway.certificate: there are several client certificates"));

    writeProfiles(R"("certificate":"Nobody")");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("sampleclient: gateway.certificate: Nobody: no certificate has this name"));

    writeProfiles(R"("certificate":"John Doe")");
    EXPECT_EQ(0, run({"--exec", "true"}).status);
    EXPECT_TRUE(mGateway->await("client CN=John Doe,O=Test"));
}

}  // namespace
