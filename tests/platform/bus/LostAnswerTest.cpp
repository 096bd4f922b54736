// SPDX-License-Identifier: Apache-2.0
//
// A service that cannot send: its callers get an error at once, and need not wait until their call ends by itself.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "ComesTrue.h"
#include "QuorServiceFixture.h"

namespace {

thread_local bool sCannotSend = false;

}  // namespace

// For all libraries.
#pragma GCC visibility push(default)
extern "C" ssize_t sendmsg(int file, const msghdr* message, int flags)
{
    static auto* const real = reinterpret_cast<decltype(&sendmsg)>(dlsym(RTLD_NEXT, "sendmsg"));
    if (!sCannotSend) return real(file, message, flags);
    errno = ENOBUFS;
    return -1;
}
#pragma GCC visibility pop

namespace {

using namespace testsupport;
using testing::SizeIs;

class LostAnswerTest : public QuorServiceTest {
protected:
    // The call is answered with an error while the service cannot send, and as usual afterwards.
    void expectErrorFor(const char* method)
    {
        Service service;
        Party client;
        Mailbox replies;
        call(client, "echo", "{}", replies);
        ASSERT_THAT(replies.wait(1), SizeIs(1));
        service.thread().call([] { sCannotSend = true; });
        call(client, method, "{}", replies);
        ASSERT_THAT(replies.wait(2), SizeIs(2)) << method << ": no answer";
        EXPECT_THAT(errorText(replies.all()[1]), testing::Not(testing::IsEmpty()));
        service.thread().call([] { sCannotSend = false; });
        const auto isAnswered = [&] {
            const std::size_t count = replies.size() + 1;
            call(client, "echo", "{}", replies);
            EXPECT_THAT(replies.wait(count), SizeIs(count));
            return replies.all().back() == "{}";
        };
        EXPECT_TRUE(testsupport::comesTrue(isAnswered)) << "the service does not come back";
    }
};

TEST_F(LostAnswerTest, AnswerThatCannotBeSent)
{
    expectErrorFor("echo");
}

TEST_F(LostAnswerTest, RefusalThatCannotBeSent)
{
    expectErrorFor("refuse");
}

}  // namespace
