// SPDX-License-Identifier: Apache-2.0
//
// DNS through resolvconf, with a small script of this name that writes down how it was called.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "Daemons.h"
#include "ErrorOf.h"
#include "Files.h"
#include "RequestError.h"
#include "dns/Dns.h"
#include "handles/UniqueFd.h"

using namespace vknetconfig;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;
using testsupport::contentOf;

namespace {

constexpr char folder[] = "/tmp/tools";
constexpr char record[] = "/tmp/record";

const Link link0{5, "norvatun0"};

DnsSettings tunnel()
{
    return {{wfoal::Ipv4Address{inet_addr("10.8.0.1")}, wfoal::Ipv4Address{inet_addr("10.8.0.2")}},
            {"corp.test", "Lab.test."},
            true};
}

class ResolvconfTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        setenv("PATH", (std::string(folder) + ":/usr/bin:/bin").c_str(), 1);
        std::filesystem::create_directories(folder);
        std::filesystem::remove(record);
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    // A resolvconf that records its arguments and input, and then does what `then` says.
    static void install(const std::string& then = "", mode_t mode = 0755)
    {
        const std::string path = std::string(folder) + "/resolvconf";
        std::ofstream(path) << "#!/bin/sh\n[ \"$1\" = --version ] && exit 1\n{ echo \"$*\"; cat; } >>" << record << "\n"
                            << then << "\n";
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    Dns dns;
};

}  // namespace

TEST_F(ResolvconfTest, ServersAndSearchDomainsAreHandedOver)
{
    install();
    const std::string prepared = dns.prepare(link0, tunnel());
    EXPECT_EQ(contentOf(record), "") << "preparing changes nothing";
    dns.set(link0, tunnel(), prepared);
    EXPECT_EQ(contentOf(record),
              "-a vpn.norvatun0.vknetconfig\nnameserver 10.8.0.1\nnameserver 10.8.0.2\nsearch corp.test lab.test\n");
}

TEST_F(ResolvconfTest, UndoRemovesOurEntryOnly)
{
    install();
    const std::string prepared = dns.prepare(link0, tunnel());
    dns.set(link0, tunnel(), prepared);
    std::filesystem::remove(record);
    Dns other;
    other.undo(prepared);
    EXPECT_EQ(contentOf(record), "-d vpn.norvatun0.vknetconfig\n");
}

TEST_F(ResolvconfTest, DomainsAloneHaveNoServerLine)
{
    install();
    const DnsSettings settings{{}, {"corp.test", "~route.test"}, false};
    dns.set(link0, settings, dns.prepare(link0, settings));
    EXPECT_EQ(contentOf(record), "-a vpn.norvatun0.vknetconfig\nsearch corp.test\n");
}

TEST_F(ResolvconfTest, WithoutAnyResolverTheErrorNamesTheKey)
{
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.prepare(link0, tunnel()); }),
                StartsWith("ipv4.dns: no resolver takes it"));
}

TEST_F(ResolvconfTest, AToolThatDoesNotRunIsNoResolver)
{
    install("", 0644);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.prepare(link0, tunnel()); }),
                StartsWith("ipv4.dns: no resolver takes it"));
    std::ofstream(std::string(folder) + "/resolvconf") << "#!/nonexistent/interpreter\n";
    ASSERT_EQ(chmod((std::string(folder) + "/resolvconf").c_str(), 0755), 0);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.prepare(link0, tunnel()); }),
                StartsWith("ipv4.dns: no resolver takes it"));
}

// Where systemd-resolved brings its own resolvconf, that is a link to resolvectl, which needs systemd-resolved.
TEST_F(ResolvconfTest, ResolvectlUnderThisNameIsNoResolver)
{
    if (const std::string reason = testsupport::daemonUnavailable(testsupport::Daemon::resolved); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string path = std::string(folder) + "/resolvconf";
    // The program goes by the name that it is called by; what fetched it wraps it in a script.
    std::ofstream(path) << "#!/bin/bash\nexec() { builtin exec -a resolvconf \"$@\"; }\n. "
                        << testsupport::daemonTool("resolvectl") << "\n";
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    ASSERT_THAT(testsupport::runCommand({path, "--help"}).output, HasSubstr("resolvconf -a INTERFACE"));
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.prepare(link0, tunnel()); }),
              "ipv4.dns: no resolver takes it: systemd-resolved does not answer on the system bus, and there is no "
              "resolvconf that works without it");
    // What an earlier resolvconf was given went with it.
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo("resolvconf norvatun0"); }), "no error");
}

TEST_F(ResolvconfTest, AToolThatFailsIsReportedInItsOwnWords)
{
    install("echo 'no space left' >&2; echo more >&2; exit 3");
    const std::string prepared = dns.prepare(link0, tunnel());
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.set(link0, tunnel(), prepared); }),
              "ipv4.dns: resolvconf: exit code 3: \"no space left\"");
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }),
                StartsWith("ipv4.dns: resolvconf: exit code 3"));
}

TEST_F(ResolvconfTest, AToolThatHangsIsKilledWithWhatItStarted)
{
    install("sleep 3600 & echo $! >/tmp/sleeper; wait");
    const std::string prepared = dns.prepare(link0, tunnel());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.set(link0, tunnel(), prepared); }),
              "ipv4.dns: resolvconf: it takes too long");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 7s);
    std::string sleeper = contentOf("/tmp/sleeper");
    sleeper.resize(sleeper.find('\n'));
    // Killed, it is dead in a moment; whoever inherited it may not have collected it yet.
    std::string status;
    for (int attempt = 0; attempt < 500; ++attempt) {
        status = contentOf("/proc/" + sleeper + "/stat");
        if (status.empty() || status.find(") Z ") != std::string::npos) return;
        std::this_thread::sleep_for(10ms);
    }
    FAIL() << "still running: " << status;
}

TEST_F(ResolvconfTest, UndoAfterTheToolIsGoneSucceeds)
{
    install();
    const std::string prepared = dns.prepare(link0, tunnel());
    std::filesystem::remove_all(folder);
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { dns.undo(prepared); }), "no error");
    EXPECT_FALSE(dns.isPending(prepared));
}

TEST_F(ResolvconfTest, ALineThatNobodyWroteIsRefused)
{
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.undo("somebody norvatun0"); }), StartsWith("undo log: "));
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { dns.undo(""); }), StartsWith("undo log: "));
}

TEST_F(ResolvconfTest, TheAgentsOpenFilesAreNotTheTools)
{
    install("ls /proc/$$/fd >/tmp/files");
    const UniqueFd inheritable(open("/dev/null", O_RDONLY));
    const UniqueFd high(fcntl(inheritable.get(), F_DUPFD, 200));
    dns.set(link0, tunnel(), dns.prepare(link0, tunnel()));
    // The shell's own copy of its script has a number of its own choice.
    EXPECT_THAT(contentOf("/tmp/files"), StartsWith("0\n1\n"));
    EXPECT_THAT(contentOf("/tmp/files"), testing::Not(HasSubstr("200")));
}

TEST_F(ResolvconfTest, SignalsThatTheAgentBlocksOrIgnoresReachTheTool)
{
    // The C library keeps the two real-time signals that it uses itself, 32 and 33. A shell may block signals while it
    // starts a program, so the first program tells its own.
    install(
        "it=$(exec grep -E 'Sig(Blk|Ign)' /proc/self/status); echo \"$it\" | sed s/180000000$/000000000/ "
        ">/tmp/signals");
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const auto handler = signal(SIGPIPE, SIG_IGN);
    dns.set(link0, tunnel(), dns.prepare(link0, tunnel()));
    signal(SIGPIPE, handler);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(contentOf("/tmp/signals"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}
