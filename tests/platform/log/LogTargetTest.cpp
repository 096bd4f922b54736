// SPDX-License-Identifier: Apache-2.0
//
// Where messages go: journald, else syslog, else stderr.
#include "LogTarget.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Files.h"
#include "LogCapture.h"

using namespace std::chrono_literals;

namespace {

using testsupport::openDescriptors;

constexpr char journalSocket[] = "/run/systemd/journal/socket";

void print(const char* name, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

void print(const char* name, int level, const char* format, ...)
{
    va_list values;
    va_start(values, format);
    vklog::print(name, level, format, values);
    va_end(values);
}

class LogTargetTest : public testing::Test {
protected:
    LogTargetTest() { unsetenv("VKLOG_TARGET"); }
};

TEST_F(LogTargetTest, JournalGetsMessagePriorityAndIdentifierAndNoPlaceInTheSource)
{
    DatagramDaemon journal(journalSocket);
    const StderrCapture errors;
    print("vpnagent.wfoal", 4, "%s: %d", "Function", 7);
    EXPECT_EQ("MESSAGE=Function: 7\nPRIORITY=4\nSYSLOG_IDENTIFIER=vpnagent.wfoal\n", journal.receive());
    EXPECT_EQ("", errors.text());
}

TEST_F(LogTargetTest, JournalGetsTextOfSeveralLinesAsOneMessage)
{
    DatagramDaemon journal(journalSocket);
    print("a", 6, "one\nPRIORITY=0\n");
    // A value with a line break has its length before it, so that it cannot pass for a field.
    const std::string value = "one\nPRIORITY=0";
    std::string wanted = "MESSAGE\n";
    wanted.push_back(static_cast<char>(value.size()));
    wanted.append(7, '\0').append(value).append("\nPRIORITY=6\nSYSLOG_IDENTIFIER=a\n");
    EXPECT_EQ(wanted, journal.receive());
}

TEST_F(LogTargetTest, JournalGetsLongMessagesWhole)
{
    DatagramDaemon journal(journalSocket);
    const StderrCapture errors;
    for (const std::size_t length : {std::size_t{60000}, std::size_t{1} << 20, std::size_t{9} << 20}) {
        const std::string message(length, 'x');
        print("a", 6, "%s", message.c_str());
        EXPECT_TRUE("MESSAGE=" + message + "\nPRIORITY=6\nSYSLOG_IDENTIFIER=a\n" == journal.receive()) << length;
    }
    EXPECT_EQ("", errors.text());
}

TEST_F(LogTargetTest, SyslogIsTakenWhenThereIsNoJournal)
{
    const PrivateDevFolder dev;
    DatagramDaemon syslog("/dev/log");
    const StderrCapture errors;
    print("vpnagent.wfoal", 3, "failed");
    EXPECT_EQ("<27>vpnagent.wfoal[" + std::to_string(getpid()) + "]: failed", syslog.receive());
    EXPECT_EQ("", errors.text());
}

TEST_F(LogTargetTest, JournalIsPreferredToSyslog)
{
    const PrivateDevFolder dev;
    DatagramDaemon syslog("/dev/log");
    DatagramDaemon journal(journalSocket);
    print("a", 6, "text");
    EXPECT_EQ("", syslog.receive());
    EXPECT_NE("", journal.receive());
}

TEST_F(LogTargetTest, StderrIsTakenWhenThereIsNeither)
{
    const PrivateDevFolder dev;
    const StderrCapture errors;
    print("vpnagent.wfoal", 7, "%s: Called!", "GetAvailableInterfaces");
    EXPECT_EQ("vpnagent.wfoal[7]: GetAvailableInterfaces: Called!\n", errors.text());
}

TEST_F(LogTargetTest, StderrIsTakenWhenASocketHasNobodyBehindIt)
{
    const PrivateDevFolder dev;
    {
        DatagramDaemon gone(journalSocket);
        std::filesystem::rename(journalSocket, "/run/left");
    }
    std::filesystem::rename("/run/left", journalSocket);
    const StderrCapture errors;
    print("a", 6, "text");
    unlink(journalSocket);
    EXPECT_EQ("a[6]: text\n", errors.text());
}

TEST_F(LogTargetTest, StderrOnRequestBypassesBothDaemons)
{
    const PrivateDevFolder dev;
    DatagramDaemon syslog("/dev/log");
    DatagramDaemon journal(journalSocket);
    const StderrCapture errors;
    setenv("VKLOG_TARGET", "stderr", 1);
    print("a", 6, "text");
    EXPECT_EQ("", journal.receive());
    EXPECT_EQ("", syslog.receive());
    EXPECT_EQ("a[6]: text\n", errors.text());
}

TEST_F(LogTargetTest, FullSyslogSocketDoesNotBlock)
{
    const PrivateDevFolder dev;
    DatagramDaemon syslog("/dev/log");
    const StderrCapture errors;
    for (int i = 0; i < 3000; ++i)
        print("a", 6, "message %d", i);  // nobody reads
    EXPECT_NE("", syslog.receive());
    EXPECT_THAT(errors.text(), testing::HasSubstr("a[6]: message 2999\n"));
}

TEST_F(LogTargetTest, JournalThatDoesNotReadIsWaitedForOnceAndToldWhatWasDropped)
{
    const PrivateDevFolder dev;
    DatagramDaemon journal(journalSocket);
    const StderrCapture errors;
    const auto begin = std::chrono::steady_clock::now();
    constexpr int count = 3000;  // longer than any usual queue of a socket
    for (int i = 0; i < count; ++i)
        print("a", 6, "message %d", i);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    int taken = 0;
    for (std::string entry = journal.receive(); !entry.empty(); entry = journal.receive())
        EXPECT_EQ("MESSAGE=message " + std::to_string(taken++) + "\nPRIORITY=6\nSYSLOG_IDENTIFIER=a\n", entry);
    ASSERT_LT(taken, count);
    print("b", 6, "next");
    EXPECT_EQ("MESSAGE=" + std::to_string(count - taken) +
                  " messages dropped: journald did not read them\nPRIORITY=4\nSYSLOG_IDENTIFIER=b\n",
              journal.receive());
    EXPECT_EQ("MESSAGE=next\nPRIORITY=6\nSYSLOG_IDENTIFIER=b\n", journal.receive());
    EXPECT_EQ("", journal.receive());
    EXPECT_EQ("", errors.text());
}

TEST_F(LogTargetTest, JournalThatReadsLaterThanItsQueueIsFullLosesNothing)
{
    DatagramDaemon journal(journalSocket);
    constexpr int count = 100;  // the queue of a new network namespace holds 11
    std::atomic<bool> isWritten{false};
    std::vector<std::string> entries;
    std::thread reader([&] {
        while (true) {
            const bool isLast = isWritten;
            std::string entry = journal.receive();
            if (entry.empty() && isLast) break;
            if (!entry.empty()) entries.push_back(std::move(entry));
        }
    });
    for (int i = 0; i < count; ++i)
        print("a", 6, "message %d", i);
    isWritten = true;
    reader.join();
    ASSERT_EQ(static_cast<std::size_t>(count), entries.size());
    for (int i = 0; i < count; ++i) {
        const std::string wanted = "MESSAGE=message " + std::to_string(i) + "\nPRIORITY=6\nSYSLOG_IDENTIFIER=a\n";
        EXPECT_EQ(wanted, entries[static_cast<std::size_t>(i)]);
    }
}

TEST_F(LogTargetTest, TrailingLineBreaksAreTakenOff)
{
    const PrivateDevFolder dev;
    const StderrCapture errors;
    print("a", 6, "output\n\n");
    print("a", 6, "%s", "");
    EXPECT_EQ("a[6]: output\na[6]: \n", errors.text());
}

TEST_F(LogTargetTest, NoDescriptorIsLeftToAChild)
{
    const auto before = openDescriptors();
    {
        DatagramDaemon journal(journalSocket);
        for (int i = 0; i < 50; ++i) {
            print("a", 6, "message %d", i);
            EXPECT_NE("", journal.receive());
        }
    }
    {
        const PrivateDevFolder dev;
        DatagramDaemon syslog("/dev/log");
        for (int i = 0; i < 50; ++i)
            print("a", 6, "message %d", i);
    }
    const auto after = openDescriptors();
    EXPECT_LE(after.size(), before.size() + 1);  // libsystemd keeps one to the journal
    for (const int fd : after) {
        if (std::find(before.begin(), before.end(), fd) != before.end()) continue;
        EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD)) << fd;
    }
}

}  // namespace
