// SPDX-License-Identifier: Apache-2.0
//
// Payloads over 64 KiB, in each direction and on both sides. The other side is played without the library, which does
// not send them.
#include <gmock/gmock.h>
#include <systemd/sd-bus.h>

#include <memory>

#include "BusConnection.h"
#include "Payload.h"
#include "QuorServiceFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::SizeIs;

constexpr std::size_t limit = 65536;

/// A JSON object of so many bytes.
std::string payloadOf(std::size_t size)
{
    const std::string frame = R"({"a":""})";
    return R"({"a":")" + std::string(size - frame.size(), 'x') + R"("})";
}

/// A service that answers each call with `reply` and then pushes `push`.
class ForeignService final : private systembus::BusListener {
public:
    ForeignService(std::string reply, std::string push) : mReply(std::move(reply)), mPush(std::move(push))
    {
        EXPECT_GE(mBus->open(), 0);
        mBus->attach(g_main_loop_get_context(mThread.loop()), mBus);
        mThread.call([this] {
            mBus->run([] {});
            EXPECT_GE(sd_bus_request_name(mBus->bus(), serviceName, 0), 0);
        });
    }
    ~ForeignService()
    {
        mBus->close();  // first: a slot is not to be touched while the loop's thread is at work
        mSlot.reset();
    }

private:
    static int onCall(sd_bus_message* message, void* data, sd_bus_error*)
    {
        const auto& self = *static_cast<ForeignService*>(data);
        sd_bus_reply_method_return(message, "s", self.mReply.c_str());
        std::uint64_t serial = 0;
        sd_bus_message_get_cookie(message, &serial);
        sd_bus_message* made = nullptr;
        sd_bus_message_new_signal(self.mBus->bus(), &made, "/", "com.vesk.JsonService1", "Push");
        const SdBusMessagePtr push(made);
        sd_bus_message_append(made, "us", static_cast<std::uint32_t>(serial), self.mPush.c_str());
        return sd_bus_send_to(self.mBus->bus(), made, sd_bus_message_get_sender(message), nullptr);
    }
    void onBusConnected(sd_bus* bus) override
    {
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object(bus, &slot, "/", onCall, this), 0);
        mSlot.reset(slot);
    }
    void onBusLost() override { mSlot.reset(); }

    const std::string mReply;
    const std::string mPush;
    LoopThread mThread;
    SdBusSlotPtr mSlot;
    std::shared_ptr<systembus::BusConnection> mBus =
        std::shared_ptr<systembus::BusConnection>(new systembus::BusConnection(*this));
};

class PayloadLimitTest : public QuorServiceTest {};

TEST_F(PayloadLimitTest, LargestPayloadGoesBothWays)
{
    Mailbox replies;
    Service service;
    Party client;
    const std::string largest = payloadOf(limit);
    call(client, "echo", largest, replies);
    EXPECT_THAT(replies.wait(1), ElementsAre(largest));
    Mailbox pushes;
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    service.push(largest);
    EXPECT_THAT(pushes.wait(2), ElementsAre(R"({"state":0})", largest));
}

TEST_F(PayloadLimitTest, ClientDoesNotSendALargerRequest)
{
    Party client;
    Error error;
    EXPECT_FALSE(QSCall(client.handle(), "vesk://com.example.service/echo", payloadOf(limit + 1).c_str(), onReply,
                        nullptr, nullptr, &error));
    EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, error.error_code);
    EXPECT_EQ("the payload is larger than 64 KiB", error.text());
}

TEST_F(PayloadLimitTest, ServiceRefusesALargerRequest)
{
    Service service;
    sRequests = 0;
    const auto send = [](const std::string& payload) {
        return runCommand(
            {"busctl", "--system", "call", serviceName, "/", "com.vesk.JsonService1", "echo", "s", payload});
    };
    EXPECT_EQ("Call failed: the payload is larger than 64 KiB\n", send(payloadOf(limit + 1)).output);
    EXPECT_EQ(0, sRequests);
    EXPECT_EQ(0, send(payloadOf(limit)).status);
    EXPECT_EQ(1, sRequests);
}

TEST_F(PayloadLimitTest, ServiceDoesNotSendALargerReply)
{
    static QSMethod methods[] = {
        {"large",
         [](QSHandle* handle, QSMessage* message, void*) {
             Error error;
             EXPECT_FALSE(QSMessageReply(handle, message, payloadOf(limit + 1).c_str(), &error));
             EXPECT_EQ("the payload is larger than 64 KiB", error.text());
             return true;
         }},
        {nullptr, nullptr}};
    Mailbox replies;
    Party service(serviceName);
    ASSERT_TRUE(QSRegisterCategory(service.handle(), "/", methods, nullptr, nullptr, nullptr));
    service.thread().call([] {});
    Party client;
    call(client, "large", "{}", replies);
    ASSERT_THAT(replies.wait(1), SizeIs(1));
    EXPECT_EQ("the service gave no answer", errorText(replies.all().front()));
}

TEST_F(PayloadLimitTest, ServiceDoesNotSendALargerPush)
{
    Service service;
    Error error;
    EXPECT_FALSE(QSSubscriptionReply(service.handle(), "key", payloadOf(limit + 1).c_str(), &error));
    EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, error.error_code);
    EXPECT_EQ("the payload is larger than 64 KiB", error.text());
}

TEST_F(PayloadLimitTest, ClientRefusesALargerReply)
{
    Mailbox replies;
    ForeignService service(payloadOf(limit + 1), "{}");
    Party client;
    call(client, "any", "{}", replies);
    ASSERT_THAT(replies.wait(1), SizeIs(1));
    EXPECT_EQ("the reply is larger than 64 KiB", errorText(replies.all().front()));
}

TEST_F(PayloadLimitTest, ClientRefusesALargerPush)
{
    Mailbox replies;
    ForeignService service("{}", payloadOf(limit + 1));
    Party client;
    call(client, "any", R"({"subscribe":true})", replies);
    ASSERT_THAT(replies.wait(2), SizeIs(2));
    EXPECT_EQ("{}", replies.all().front());
    EXPECT_EQ("the push is larger than 64 KiB", errorText(replies.all().back()));
}

}  // namespace
