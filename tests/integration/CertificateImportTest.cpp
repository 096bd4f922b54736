// SPDX-License-Identifier: Apache-2.0
//
// PKCS#12 import from end to end: vpnoalctl, the plug-in, a real bus and the real certificate manager.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>

#include "BundleMaker.h"
#include "CertificateAuthority.h"
#include "ChildProcess.h"
#include "Daemons.h"
#include "Files.h"
#include "Isolation.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::runCommand;
using testsupport::writeFile;

constexpr char serviceName[] = "com.vesk.certificatemanager";

class CertificateImportTest : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all("/var/ssl");
        writeFile("/tmp/client.pfx", mClient.pkcs12("secret"));
        writeFile("/tmp/password", std::string("secret\n"));
        mBus = testsupport::startBus();
    }

    void startService()
    {
        mService = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-certificatemanager"});
        testsupport::waitForBusName(serviceName, mService);
    }

    static CommandResult import()
    {
        return runCommand({WFOAL_BUILD_DIR "/bin/vpnoalctl", "-v", "certs", "import", "/tmp/client.pfx",
                           "--password-file", "/tmp/password"});
    }

    static CommandResult call(const std::string& payload)
    {
        return runCommand(
            {"busctl", "--system", "call", serviceName, "/", "com.vesk.JsonService1", "addcertificate", "s", payload});
    }

    Identity mClient = makeIdentity({"client", 4});
    ChildProcess mBus;
    ChildProcess mService;
};

TEST_F(CertificateImportTest, BundleIsInstalledAndListed)
{
    startService();
    const CommandResult result = import();
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("Installed: CN=client,O=Test"));
    EXPECT_THAT(runCommand({WFOAL_BUILD_DIR "/bin/vpnoalctl", "certs", "list"}).output, HasSubstr("CN=client,O=Test"));
    // A second time it is there already, which counts as installed.
    EXPECT_EQ(0, import().status);
}

TEST_F(CertificateImportTest, RefusalIsReported)
{
    startService();
    writeFile("/tmp/password", std::string("wrong\n"));
    const CommandResult result = import();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("the passphrase is wrong"));
    EXPECT_FALSE(fs::exists("/var/ssl/certs"));
}

TEST_F(CertificateImportTest, MissingServiceEndsTheImportAtOnce)
{
    const CommandResult result = import();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("the bundle was not installed"));
}

TEST_F(CertificateImportTest, ServiceThatDiesInBetweenEndsTheImport)
{
    startService();
    mService.sendSignal(SIGSTOP);
    ChildProcess caller(
        {WFOAL_BUILD_DIR "/bin/vpnoalctl", "certs", "import", "/tmp/client.pfx", "--password-file", "/tmp/password"});
    while (!fs::exists("/tmp/vpncerts/vpninstall.pfx")) {
    }
    mService.sendSignal(SIGKILL);
    EXPECT_EQ(1, caller.wait());
}

TEST_F(CertificateImportTest, AnyBusClientCanCallIt)
{
    startService();
    EXPECT_THAT(call("{}").output, HasSubstr("certificateFilename: missing"));
    EXPECT_THAT(call("no json").output, HasSubstr("the request is not JSON"));
    EXPECT_THAT(call("{\"certificateFilename\":\"/tmp/client.pfx\",\"passphrase\":\"secret\"}").output,
                HasSubstr("\\\"returnValue\\\": true"));
}

TEST_F(CertificateImportTest, StartRemovesWhatAKilledInstallationLeft)
{
    for (const char* path : {"/var/ssl/private/.installing-a1b2c3", "/var/ssl/certs/.installing-a1b2c3"})
        writeFile(path, std::string("left"));
    writeFile("/var/ssl/private/rsamine.pem", std::string("mine"));
    startService();
    call("{}");  // is answered when the service has started
    EXPECT_FALSE(fs::exists("/var/ssl/private/.installing-a1b2c3"));
    EXPECT_FALSE(fs::exists("/var/ssl/certs/.installing-a1b2c3"));
    EXPECT_TRUE(fs::exists("/var/ssl/private/rsamine.pem"));
    // A second service does not get the name, and must leave alone what the first one is writing.
    writeFile("/var/ssl/private/.installing-d4e5f6", std::string("being written"));
    EXPECT_EQ(1, runCommand({WFOAL_BUILD_DIR "/bin/vesk-certificatemanager"}).status);
    EXPECT_TRUE(fs::exists("/var/ssl/private/.installing-d4e5f6"));
}

TEST_F(CertificateImportTest, BundleWithTooManyIterationsLeavesTheServiceUsable)
{
    testsupport::BundleOptions options;
    options.macIterations = 2147483647;
    writeFile("/tmp/hostile.pfx", testsupport::BundleMaker("secret", options)
                                      .addKey(mClient.key.get())
                                      .addCertificate(mClient.certificate.get())
                                      .bytes());
    startService();
    EXPECT_THAT(call("{\"certificateFilename\":\"/tmp/hostile.pfx\",\"passphrase\":\"secret\"}").output,
                HasSubstr("more than 5000000 iterations"));
    EXPECT_EQ(0, import().status);
}

TEST_F(CertificateImportTest, OnlyRootMayInstall)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << "a plain user namespace has no second user";
    const UniqueFd log(open("/tmp/certificatemanager.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    mService = ChildProcess({"env", "VKLOG_TARGET=stderr", WFOAL_BUILD_DIR "/bin/vesk-certificatemanager"}, log.get());
    testsupport::waitForBusName(serviceName, mService);
    const CommandResult result =
        runCommand({"setpriv", "--reuid", "65534", "--clear-groups", "busctl", "--system", "call", serviceName, "/",
                    "com.vesk.JsonService1", "addcertificate", "s",
                    "{\"certificateFilename\":\"/tmp/client.pfx\",\"passphrase\":\"secret\"}"});
    EXPECT_THAT(result.output, HasSubstr("only root may install certificates"));
    EXPECT_EQ("certificatemanager[3]: addcertificate: refused, the caller is not root\n",
              testsupport::contentOf("/tmp/certificatemanager.log"));
    EXPECT_FALSE(fs::exists("/var/ssl/certs"));
}

}  // namespace
