// SPDX-License-Identifier: Apache-2.0
//
// The sample client against the sample gateway: the plug-in, its platform, the kernel, the connection manager and the
// gateway are real. The gateway is in a network namespace of its own, reached over eth0 and rmnet0.
#ifndef TESTSUPPORT_SAMPLECONNECTION_H
#define TESTSUPPORT_SAMPLECONNECTION_H

#include <fcntl.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "CertificateAuthority.h"
#include "ChildProcess.h"
#include "Isolation.h"
#include "LineProcess.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace testsupport {

class SampleConnection : public testing::Test {
protected:
    static constexpr char program[] = WFOAL_BUILD_DIR "/bin/sampleclient";
    static constexpr char gatewayProgram[] = WFOAL_BUILD_DIR "/bin/samplegateway";
    static constexpr char profile[] = "/tmp/profile.json";
    static constexpr char gateway[] = "/tmp/gateway.json";

    void SetUp() override
    {
        if (isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        makeCertificates();
        makeNetworks();
        writeProfiles("");
        mBefore = state();
    }
    void TearDown() override
    {
        mGateway.reset();
        if (IsSkipped()) return;
        EXPECT_EQ(mBefore, state());
        shell("ip link del eth0; ip link del rmnet0; ip netns del gw");
    }

    void makeCertificates()
    {
        std::filesystem::remove_all("/var/ssl");
        installTrusted(mServerCa);
        writeFile("/tmp/clientca.pem", mClientCa.pem());
        writeFile("/tmp/serverkey.pem", makeIdentity({"", 2}).keyPem());
        installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mClientCa));
    }
    static void installClient(const Identity& client, const char* password = nullptr)
    {
        writeFile("/var/ssl/certs/client.pem", client.pem());
        writeFile("/var/ssl/private/rsaclient.pem", client.keyPem(password));
    }
    static void makeNetworks()
    {
        shell(
            "set -e; ip netns add gw; for n in 'eth0 192.0.2' 'rmnet0 203.0.113'; do set -- $n;"
            " ip link add $1 type veth peer name $1 netns gw; ip address add $2.10/24 dev $1; ip link set $1 up;"
            " nsenter --net=/run/netns/gw sh -c \"ip address add $2.1/24 dev $1; ip link set $1 up\"; done;"
            " nsenter --net=/run/netns/gw sh -c 'ip link set lo up; ip address add 198.51.100.2/32 dev lo';"
            " ip route add default via 203.0.113.1 dev rmnet0 metric 700;"
            " for n in eth0 rmnet0; do ip -6 address flush dev $n; done");
        wifiRoute();
    }
    static void wifiRoute() { shell("ip route add default via 192.0.2.1 dev eth0 metric 100"); }
    static void wifiOn()
    {
        shell("ip link set eth0 up; ip -6 address flush dev eth0");
        wifiRoute();
    }

    static void writeProfiles(const std::string& gatewayKeys)
    {
        std::ofstream(profile) << R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},
            "routes":[{"destination":"10.20.0.0/16"},{"destination":"default"}],
            "filter":[{"action":"drop","protocol":"tcp","destinationPort":7}]})";
        std::ofstream(gateway) << R"({"gateway":{"address":"198.51.100.2","serverName":"vpn.example")"
                               << (gatewayKeys.empty() ? "" : ",") << gatewayKeys << "}}";
    }

    static std::string state()
    {
        return shell(
            "ip -4 -o address; ip route show table all type unicast; ip rule; nft list ruleset; ip -br link show type "
            "tun");
    }

    void startGateway(const Identity& certificate)
    {
        writeFile("/tmp/server.pem", certificate.pem());
        mGateway = std::make_unique<LineProcess>(
            std::vector<std::string>{"nsenter", "--net=/run/netns/gw", gatewayProgram, profile, gateway,
                                     "/tmp/server.pem", "/tmp/serverkey.pem", "/tmp/clientca.pem"});
        ASSERT_TRUE(mGateway->await("ready")) << mGateway->output;
    }
    void startGoodGateway() { startGateway(makeIdentity({"vpn.example", 2}, &mServerCa)); }

    static std::vector<std::string> command(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> words{program, "--json", profile, gateway};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }
    /// For what is to end by itself: 124 when it does not.
    static CommandResult run(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> words{"sh", "-c", "exec timeout 30 \"$@\" </dev/null", "sh"};
        const std::vector<std::string> rest = command(options);
        words.insert(words.end(), rest.begin(), rest.end());
        return runCommand(words);
    }
    /// As typed at a terminal: `answer` is what the user types.
    static CommandResult runAtTerminal(const std::string& answer)
    {
        return runCommand({"sh", "-c",
                           "echo " + answer + " | script -qefc '" + program + " --json " + profile + " " + gateway +
                               " --exec true' /dev/null"});
    }
    static void expectPing() { EXPECT_THAT(shell("ping -n -q -c 1 -W 5 10.8.0.1"), testing::HasSubstr("1 received")); }
    static std::string outerConnection() { return shell("ss -H -n -t state established dst 198.51.100.2"); }

    Identity mServerCa = makeIdentity({"Server CA", 1, true});
    Identity mClientCa = makeIdentity({"Client CA", 3, true});
    std::unique_ptr<LineProcess> mGateway;
    std::string mBefore;
};

}  // namespace testsupport

#endif
