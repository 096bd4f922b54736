// SPDX-License-Identifier: Apache-2.0
#include "Progress.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "Json.h"
#include "handles/Stdio.h"
#include "handles/UniqueFd.h"

namespace vpnoalctl {
namespace {

constexpr std::uint64_t megabyte = 1u << 20;

TEST(PlainSizeTest, SizesAreInTheLargestUnitThatHoldsOne)
{
    EXPECT_EQ("0 bytes", plainSize(0));
    EXPECT_EQ("1 byte", plainSize(1));
    EXPECT_EQ("1023 bytes", plainSize(1023));
    EXPECT_EQ("1.0 KiB", plainSize(1024));
    EXPECT_EQ("9.9 KiB", plainSize(10137));
    EXPECT_EQ("10 KiB", plainSize(10240));
    EXPECT_EQ("1023 KiB", plainSize(std::uint64_t{1023} * 1024));
    EXPECT_EQ("1.0 MiB", plainSize(megabyte - 1));
    EXPECT_EQ("100 MiB", plainSize(100 * megabyte));
    EXPECT_EQ("2.0 GiB", plainSize(0x7fffffff));
    EXPECT_EQ("16 EiB", plainSize(~std::uint64_t{0}));
}

TEST(ValidUtf8Test, OnlyWhatIsNotUtf8IsReplaced)
{
    EXPECT_EQ("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", validUtf8("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"));
    EXPECT_EQ("caf\xef\xbf\xbd", validUtf8("caf\xe9"));
    EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd", validUtf8("\xc0\x80"));                    // overlong
    EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd", validUtf8("\xed\xa0\x80"));    // surrogate
    EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbdx", validUtf8("\xe2\x82\xffx"));  // cut short
    EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd", validUtf8("\xf5\x80\x80\x80"));
}

// A terminal of our own, and what was drawn on it.
class ProgressTest : public testing::Test {
protected:
    void SetUp() override
    {
        mMaster.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
        if (!mMaster.valid() || grantpt(mMaster.get()) != 0 || unlockpt(mMaster.get()) != 0) {
            GTEST_SKIP() << "no pseudo terminals here";
        }
        mTerminal.reset(std::fopen(ptsname(mMaster.get()), "r+e"));
        ASSERT_TRUE(mTerminal);
    }

    std::string drawn()
    {
        char buffer[65536];
        const ssize_t got = read(mMaster.get(), buffer, sizeof buffer);
        return {buffer, got > 0 ? static_cast<std::size_t>(got) : 0};
    }

    UniqueFd mMaster;
    FilePtr mTerminal;
};

TEST_F(ProgressTest, MoreThanEightMegabytesShowABarThatIsWipedAtTheEnd)
{
    {
        Progress progress(mTerminal.get(), "reading f", 16 * megabyte, true);
        progress.advance(4 * megabyte);
        EXPECT_EQ("\rreading f  [#######.......................]   25 %  4.0 MiB of 16 MiB\x1b[K", drawn());
        progress.advance(0);
        EXPECT_EQ("", drawn());
        progress.advance(12 * megabyte);
        EXPECT_EQ("\rreading f  [##############################]  100 %  16 MiB of 16 MiB\x1b[K", drawn());
    }
    EXPECT_EQ("\r\x1b[K", drawn());
}

TEST_F(ProgressTest, EightMegabytesShowNothing)
{
    {
        Progress progress(mTerminal.get(), "reading f", 8 * megabyte, true);
        progress.advance(4 * megabyte);
    }
    EXPECT_EQ("", drawn());
}

TEST_F(ProgressTest, UnknownTotalShowsTheAmountOnceItIsLarge)
{
    Progress progress(mTerminal.get(), "reading stdin", 0, true);
    progress.advance(8 * megabyte);
    EXPECT_EQ("", drawn());
    progress.advance(4 * megabyte);
    EXPECT_EQ("\rreading stdin  12 MiB\x1b[K", drawn());
}

TEST_F(ProgressTest, UnwantedBarIsNotDrawn)
{
    Progress progress(mTerminal.get(), "reading f", 16 * megabyte, false);
    progress.advance(4 * megabyte);
    EXPECT_EQ("", drawn());
}

TEST_F(ProgressTest, NothingIsDrawnWhereThereIsNoTerminal)
{
    const FilePtr file(std::tmpfile());
    {
        Progress progress(file.get(), "reading f", 16 * megabyte, true);
        progress.advance(16 * megabyte);
    }
    EXPECT_EQ(0, std::ftell(file.get()));
}

TEST_F(ProgressTest, ControlCharactersOfTheLabelReachNoTerminal)
{
    Progress progress(mTerminal.get(), "a\x1b[2J", 16 * megabyte, true);
    progress.advance(megabyte);
    EXPECT_THAT(drawn(), testing::StartsWith("\ra\\x1b[2J  ["));
}

}  // namespace
}  // namespace vpnoalctl
