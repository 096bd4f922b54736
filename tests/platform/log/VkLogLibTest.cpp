// SPDX-License-Identifier: Apache-2.0
//
// Contexts, thresholds and threads of the log library.
#include "VkLogLib.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"

namespace {

class VkLogLibTest : public testing::Test {
protected:
    VkLogLibTest()
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        unsetenv("VKLOG_LEVEL");
    }

    static VkLogContext* context(const char* name)
    {
        VkLogContext* made = nullptr;
        EXPECT_EQ(0, VkLogGetContext(name, &made));
        return made;
    }
};

TEST_F(VkLogLibTest, ThresholdComesFromTheEnvironmentAtTheFirstCall)
{
    EXPECT_EQ(6, context("standard")->level);
    setenv("VKLOG_LEVEL", "7", 1);
    EXPECT_EQ(7, context("chatty")->level);
    EXPECT_EQ(6, context("standard")->level);
}

TEST_F(VkLogLibTest, OneNameIsOneContext)
{
    EXPECT_EQ(context("one"), context("one"));
    EXPECT_NE(context("one"), context("another"));
    EXPECT_NE(context(""), context("one"));
}

TEST_F(VkLogLibTest, NullArgumentsAreRefusedAndTheContextLeftAlone)
{
    VkLogContext untouched{3};
    VkLogContext* pointer = &untouched;
    EXPECT_EQ(EINVAL, VkLogGetContext(nullptr, &pointer));
    EXPECT_EQ(&untouched, pointer);
    EXPECT_EQ(EINVAL, VkLogGetContext("name", nullptr));
}

TEST_F(VkLogLibTest, MessagesAboveTheThresholdAreDropped)
{
    VkLogContext* quiet = context("quiet");
    const StderrCapture errors;
    for (int level = 0; level <= 7; ++level) {
        quiet->level = 4;
        VkLogPrint(quiet, level, "level %d", level);
    }
    EXPECT_EQ("quiet[0]: level 0\nquiet[1]: level 1\nquiet[2]: level 2\nquiet[3]: level 3\nquiet[4]: level 4\n",
              errors.text());
}

TEST_F(VkLogLibTest, NullContextPrintsEveryLevel)
{
    const StderrCapture errors;
    VkLogPrint(nullptr, 3, "InitLib: VkLogGetContext err %d", 12);
    VkLogPrint(nullptr, 7, "Debug initialized");
    VkLogPrint(nullptr, std::numeric_limits<int>::max(), "far below debug");
    EXPECT_EQ(
        "vklog[3]: InitLib: VkLogGetContext err 12\nvklog[7]: Debug initialized\nvklog[2147483647]: far below debug\n",
        errors.text());
}

TEST_F(VkLogLibTest, NullTextsArePrintedAsSuch)
{
    const StderrCapture errors;
    const char* volatile nothing = nullptr;
    const char* volatile noFormat = nullptr;
    VkLogPrint(nullptr, 6, "name: %s", nothing);
    VkLogPrint(nullptr, 6, noFormat, 0);
    EXPECT_EQ("vklog[6]: name: (null)\n", errors.text());
}

TEST_F(VkLogLibTest, LongMessageIsPrintedWhole)
{
    const StderrCapture errors;
    const std::string message(1 << 20, 'x');
    VkLogPrint(nullptr, 6, "%s", message.c_str());
    EXPECT_TRUE("vklog[6]: " + message + "\n" == errors.text());
}

TEST_F(VkLogLibTest, ErrnoOfTheCallerIsKept)
{
    VkLogContext* named = context("errno");
    const StderrCapture errors;
    setenv("VKLOG_TARGET", "daemons", 1);  // there are none: looking for them changes errno
    const PrivateDevFolder dev;
    errno = ENOENT + 1;
    VkLogPrint(named, 3, "cannot open");
    EXPECT_EQ(ENOENT + 1, errno);
    EXPECT_EQ("errno[3]: cannot open\n", errors.text());
}

TEST_F(VkLogLibTest, ThreadsGetTheSameContextAndWholeLines)
{
    constexpr int threads = 8;
    constexpr int messages = 200;
    const std::string filler(300, '.');
    const StderrCapture errors;
    std::vector<VkLogContext*> contexts(threads);
    std::vector<std::thread> running;
    for (int number = 0; number < threads; ++number) {
        running.emplace_back([&, number] {
            VkLogGetContext("shared", &contexts[static_cast<std::size_t>(number)]);
            for (int i = 0; i < messages; ++i) {
                VkLogPrint(contexts[static_cast<std::size_t>(number)], 6, "%d %s %d", number, filler.c_str(), i);
            }
        });
    }
    for (auto& thread : running)
        thread.join();
    EXPECT_THAT(contexts, testing::Each(contexts[0]));

    std::vector<int> next(threads, 0);
    std::istringstream lines(errors.text());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string head, dots;
        int number = -1, i = -1;
        ASSERT_TRUE(words >> head >> number >> dots >> i) << line;
        ASSERT_EQ("shared[6]:", head);
        ASSERT_EQ(filler, dots);
        ASSERT_EQ(next.at(static_cast<std::size_t>(number))++, i);
    }
    EXPECT_THAT(next, testing::Each(messages));
}

}  // namespace
