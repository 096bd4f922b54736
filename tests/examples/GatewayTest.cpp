// SPDX-License-Identifier: Apache-2.0
//
// The gateway's file: what is read, what is refused with which words, and where a key's password comes from.
#include "client/Gateway.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "CommandError.h"

using namespace vpnoalctl;

namespace sampleclient {
namespace {

constexpr char smallest[] = R"("address":"198.51.100.2","serverName":"vpn.example")";

GatewaySettings parsed(const std::string& keys)
{
    return parseGateway(R"({"gateway":{)" + keys + "}}", "g.json");
}

std::string errorOf(const std::string& keys)
{
    try {
        parsed(keys);
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitUsage, error.exitCode());
        return error.reason();
    }
    return "no error";
}

std::string errorBehind(const std::string& more)
{
    return errorOf(std::string(smallest) + "," + more);
}

std::string passwordError(const GatewaySettings& gateway)
{
    try {
        keyPassword(gateway);
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitUsage, error.exitCode());
        return error.what();
    }
    return "no error";
}

TEST(GatewayTest, FileNamesOneGatewayAndNothingElse)
{
    for (const auto& [text, error] : std::map<std::string, std::string>{
             {"{}", "gateway: missing"},
             {R"({"tunnel":{}})", "tunnel: unknown key"},
             {"{", "the gateway's file is not JSON: Missing a name for object member, at line 1, column 2"}}) {
        try {
            parseGateway(text, "g.json");
            ADD_FAILURE() << text;
        } catch (const CommandError& fault) {
            EXPECT_EQ("g.json: " + error + "; correct the gateway's file; nothing was changed", fault.what());
        }
    }
}

TEST(GatewayTest, SmallestGatewayHasDefaults)
{
    const GatewaySettings gateway = parsed(smallest);
    EXPECT_EQ("198.51.100.2", dotted(gateway.address));
    EXPECT_EQ(443, gateway.port);
    EXPECT_EQ("vpn.example", gateway.serverName);
    EXPECT_EQ("", gateway.certificate + gateway.passwordFile + gateway.passwordVariable);
    EXPECT_FALSE(keyPassword(gateway).has_value());
}

TEST(GatewayTest, GatewayWithEverything)
{
    const GatewaySettings gateway =
        parsed(std::string(smallest) + R"(,"port":8443,"certificate":"Jane Doe","passwordFile":"/etc/secret")");
    EXPECT_EQ(8443, gateway.port);
    EXPECT_EQ("Jane Doe", gateway.certificate);
    EXPECT_EQ("/etc/secret", gateway.passwordFile);
}

TEST(GatewayTest, WhatIsMissingOrUnknown)
{
    EXPECT_EQ("gateway.address: missing", errorOf(R"("serverName":"vpn.example")"));
    EXPECT_EQ("gateway.serverName: missing", errorOf(R"("address":"198.51.100.2")"));
    EXPECT_EQ("gateway.servername: unknown key; perhaps \"serverName\" is meant", errorBehind(R"("servername":"x")"));
    EXPECT_EQ("gateway.password: unknown key", errorBehind(R"("password":"secret")").substr(0, 29));
    EXPECT_EQ("gateway.port: given twice", errorBehind(R"("port":1,"port":2)"));
}

TEST(GatewayTest, ValuesThatAreNone)
{
    EXPECT_EQ("gateway.address: \"vpn.example\" is no IPv4 address", errorOf(R"("address":"vpn.example")"));
    EXPECT_EQ("gateway.address: 127.0.0.1 is no address of a host", errorOf(R"("address":"127.0.0.1")"));
    EXPECT_EQ("gateway.address: must be a text", errorOf(R"("address":17)"));
    EXPECT_EQ("gateway.port: must be a whole number from 1 to 65535", errorBehind(R"("port":0)"));
    EXPECT_EQ("gateway.port: must be a whole number from 1 to 65535", errorBehind(R"("port":"443")"));
    EXPECT_EQ("gateway.serverName: \"vpn example\" is no domain name",
              errorOf(R"("address":"198.51.100.2","serverName":"vpn example")"));
    EXPECT_EQ("gateway.certificate: must not be empty", errorBehind(R"("certificate":"")"));
    EXPECT_EQ("gateway.passwordFile: must not be empty", errorBehind(R"("passwordFile":"")"));
    EXPECT_EQ("gateway.passwordFile: is longer than 4096 bytes",
              errorBehind(R"("passwordFile":")" + std::string(4097, 'x') + "\""));
    for (const char* name : {"1A", "A-B", "A=B", "A B"}) {
        EXPECT_EQ(std::string("gateway.passwordVariable: \"") + name + "\" is no name of an environment variable",
                  errorBehind(std::string(R"("passwordVariable":")") + name + "\""));
    }
}

TEST(GatewayTest, OnePasswordIsEnough)
{
    EXPECT_EQ("gateway.passwordVariable: there is a passwordFile already",
              errorBehind(R"("passwordFile":"/a","passwordVariable":"B")"));
    EXPECT_EQ("gateway.passwordFile: there is a passwordVariable already",
              errorBehind(R"("passwordVariable":"B","passwordFile":"/a")"));
}

TEST(GatewayTest, PasswordOfAFileIsItsFirstLine)
{
    std::ofstream("/tmp/password") << "open sesame\nno part of it\n";
    GatewaySettings gateway;
    gateway.passwordFile = "/tmp/password";
    EXPECT_EQ("open sesame", keyPassword(gateway));
    gateway.passwordFile = "/tmp/none";
    EXPECT_EQ(
        "gateway.passwordFile: /tmp/none: No such file or directory; check the path and its permissions; nothing was "
        "changed",
        passwordError(gateway));
}

TEST(GatewayTest, PasswordOfAVariable)
{
    GatewaySettings gateway;
    gateway.passwordVariable = "WFOAL_TEST_PASSWORD";
    setenv("WFOAL_TEST_PASSWORD", "open sesame", 1);
    EXPECT_EQ("open sesame", keyPassword(gateway));
    unsetenv("WFOAL_TEST_PASSWORD");
    EXPECT_EQ("gateway.passwordVariable: there is no variable WFOAL_TEST_PASSWORD; set it; nothing was changed",
              passwordError(gateway));
}

}  // namespace
}  // namespace sampleclient
