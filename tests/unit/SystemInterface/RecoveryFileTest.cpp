// SPDX-License-Identifier: Apache-2.0
//
// The recovery file.
#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "Files.h"
#include "SystemInterfaceTest.h"

namespace {

using testing::ElementsAre;
using testsupport::contentOf;

constexpr char content[] = R"({ "ifName": "norvatun0", "vpnAgentGuid": "com.vesk.wayfoldagent" })";

class RecoveryFileTest : public SystemInterfaceTest {};

TEST_F(RecoveryFileTest, SuccessfulApplyLeavesExactlyTheTwoKeysInOrder)
{
    mSystem->ApplyConfiguration();
    EXPECT_EQ(content, contentOf(recoveryFile));
}

TEST_F(RecoveryFileTest, LongerOldFileIsTruncated)
{
    std::ofstream(recoveryFile) << std::string(4096, 'x');
    mSystem->ApplyConfiguration();
    EXPECT_EQ(content, contentOf(recoveryFile));
}

TEST_F(RecoveryFileTest, RestoreAndDestructionDoNotRemoveIt)
{
    mSystem->ApplyConfiguration();
    mSystem->RestoreSystemConfiguration();
    mSystem.reset();
    EXPECT_EQ(content, contentOf(recoveryFile));
}

TEST_F(RecoveryFileTest, FailedApplyWritesNone)
{
    fakes::netConfigResults().add = -1;
    mSystem->ApplyConfiguration();
    EXPECT_NE(0, access(recoveryFile, F_OK));
}

TEST_F(RecoveryFileTest, TmpNotWritableStillAppliesAndIsLogged)
{
    // Read-only for root as well.
    ASSERT_EQ(0, mount("readonly", "/tmp", "tmpfs", MS_RDONLY, nullptr)) << std::strerror(errno);
    mSystem->SetSystemPluginCB(&mCallback);
    forget();
    const PluginResult result = mSystem->ApplyConfiguration();
    EXPECT_NE(0, access(recoveryFile, F_OK));
    ASSERT_EQ(0, umount("/tmp"));
    EXPECT_EQ(PLUGIN_SUCCESS, result);
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "saveDataForRecovery: Failed to save the data to the recovery file"}));
    const auto lines = fakes::logLines(7);
    EXPECT_EQ((fakes::LogLine{7, "saveDataForRecovery: Called"}), lines.back());
    EXPECT_EQ("OnConfigurationChange", fakes::calls().back());
}

TEST_F(RecoveryFileTest, DiskFullStillApplies)
{
    ASSERT_EQ(0, symlink("/dev/full", recoveryFile));
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    unlink(recoveryFile);
}

TEST_F(RecoveryFileTest, NoDescriptorOfItStaysOpen)
{
    mSystem->ApplyConfiguration();
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    mSystem->ApplyConfiguration();
    const int second = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // One descriptor an apply is kept, the address socket; the file's is closed.
    EXPECT_EQ(first + 2, second);
    close(first);
    close(second);
}

}  // namespace
