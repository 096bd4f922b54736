// SPDX-License-Identifier: Apache-2.0
//
// The promises of quorservice.h between a client and a service. They need a bus that gives this program a name.
#include <atomic>
#include <chrono>

#include "BusPeer.h"

namespace conformance {

namespace {

constexpr char header[] = "quorservice.h";

using std::chrono::milliseconds;

std::string textAt(const std::vector<CallbackEntry>& entries, std::size_t index)
{
    return index < entries.size() ? entries[index].text : "(nothing within five seconds)";
}

void expectReply(BusPeer& peer, const std::string& expected)
{
    const std::string reply = textAt(peer.mailbox().wait(1), 0);
    expect(reply == expected, "the reply is " + reply + ", not " + expected);
}

void answersCalls(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    const QSMessageToken token = client.call(service.uri("echo"), R"({"text":"x\u00e4 / \"y\""})");
    expectReply(client, R"({"text":"x\u00e4 / \"y\""})");
    const auto reply = client.mailbox().wait(1)[0];
    expect(reply.token == token, "the reply carries another token than the call");
    expect(reply.thread == client.thread().id(), "the reply came on another thread than the loop's");
    expect(client.mailbox().wait(2, milliseconds(200)).size() == 1, "there was a second reply");
}

void categoriesAreApart(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    client.call(service.uri("one/two/where"), "{}");
    expectReply(client, R"({"where":"below"})");
    client.call(service.uri("where"), "{}");
    expectErrorReply(textAt(client.mailbox().wait(2), 1));
}

void failedRequestIsAnswered(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    std::size_t count = 0;
    for (const char* method : {"silent", "refuse", "unknown"}) {
        client.call(service.uri(method), "{}");
        const auto replies = client.mailbox().wait(count + 1);
        expectErrorReply(textAt(replies, count++));
    }
}

void answersOnce(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    client.call(service.uri("twice"), "{}");
    expectReply(client, R"({"first":true})");
    expect(client.mailbox().wait(2, milliseconds(200)).size() == 1, "the second answer arrived too");
}

void tellsTheSender(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    client.call(service.uri("who"), "{}");
    expectReply(client, R"({"known":true})");
}

void pushesToSubscribers(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    BusPeer other(platform);
    const QSMessageToken token = client.call(service.uri("watch"), R"({"subscribe":true})");
    expectReply(client, R"({"entered":true})");
    other.call(service.uri("echo"), "{}");
    expectReply(other, "{}");
    for (const char* payload : {R"({"push":1})", R"({"push":2})"})
        service.push(payload);
    const auto all = client.mailbox().wait(3);
    expect(textAt(all, 1) == R"({"push":1})" && textAt(all, 2) == R"({"push":2})",
           "two pushes arrived as " + textAt(all, 1) + " and " + textAt(all, 2));
    expect(all[1].token == token && all[2].token == token, "a push carries another token than its subscription");
    expect(all[1].thread == client.thread().id(), "a push came on another thread than the loop's");
    expect(other.mailbox().wait(2, milliseconds(100)).size() == 1, "a push went to a client that did not ask for any");
}

void pushWithoutSubscriber(Platform& platform)
{
    BusService service(platform);
    service.push("{}");
}

void subscriberThatLeftIsForgotten(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    client.call(service.uri("watch"), R"({"subscribe":true})");
    expectReply(client, R"({"entered":true})");
    client.leave();
    service.push("{}");
    service.thread().call([] {});
    expect(client.mailbox().wait(2, milliseconds(200)).size() == 1, "a push arrived after QSUnregister()");
}

void subscriptionsAreLimited(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    for (int number = 0; number < 65; ++number)
        client.call(service.uri("watch"), R"({"subscribe":true})");
    const auto replies = client.mailbox().wait(65);
    expect(textAt(replies, 63) == R"({"entered":true})", "the 64th subscription of one sender was refused");
    expect(textAt(replies, 64) == R"({"entered":false})", "the 65th subscription of one sender was taken");
}

void serviceStatusIsTold(Platform& platform)
{
    BusPeer client(platform);
    const std::string name = platform.settings().serviceName;
    expect(QUOR(QSRegisterServerStatus)(client.handle(), name.c_str(), BusPeer::onStatus,
                                        static_cast<BusPeer*>(&client), nullptr),
           "QSRegisterServerStatus() failed");
    expect(textAt(client.mailbox().wait(1), 0) == name + " is gone", "the first state was not reported");
    {
        BusService service(platform);
        expect(textAt(client.mailbox().wait(2), 1) == name + " is there", "the service's start was not reported");
    }
    const auto all = client.mailbox().wait(3);
    expect(textAt(all, 2) == name + " is gone", "the service's end was not reported");
    expect(all.size() == 3, "more changes were reported than happened");
    expect(all[0].thread == client.thread().id(), "the status came on another thread than the loop's");
}

void nameIsTakenOnce(Platform& platform)
{
    BusService service(platform);
    QSHandle* handle = nullptr;
    ErrorRecord error(platform);
    expect(!QUOR(QSRegister)(platform.settings().serviceName.c_str(), &handle, error.get()),
           "one name was given twice");
    error.expectFilled("QSRegister() of a name that is taken");
}

// A slow callback that records when it has finished.
struct SlowCallback {
    std::promise<void> begun;
    std::atomic<bool> through{false};

    static bool run(QSHandle*, QSMessage*, void* self)
    {
        auto& slow = *static_cast<SlowCallback*>(self);
        slow.begun.set_value();
        std::this_thread::sleep_for(milliseconds(300));
        slow.through = true;
        return true;
    }
};

void unregisterWaits(Platform& platform)
{
    BusService service(platform);
    BusPeer client(platform);
    SlowCallback slow;
    expect(QUOR(QSCall)(client.handle(), service.uri("echo").c_str(), "{}", SlowCallback::run, &slow, nullptr, nullptr),
           "the call was refused");
    slow.begun.get_future().wait();
    client.leave();
    expect(slow.through, "QSUnregister() returned while a callback was running");
}

void malformedServiceIsRefused(Platform& platform)
{
    BusPeer peer(platform);
    static QSMethod nameless[] = {{"good", nullptr}, {nullptr, nullptr}};
    static QSMethod good[] = {{nullptr, nullptr}};
    expect(!QUOR(QSRegisterCategory)(peer.handle(), "/", nullptr, nullptr, nullptr, nullptr), "a null table was taken");
    expect(!QUOR(QSRegisterCategory)(peer.handle(), "/", nameless, nullptr, nullptr, nullptr),
           "a method without a function was taken");
    expect(!QUOR(QSRegisterCategory)(peer.handle(), nullptr, good, nullptr, nullptr, nullptr),
           "a null category was taken");
    expect(!QUOR(QSRegisterServerStatus)(peer.handle(), nullptr, BusPeer::onStatus, nullptr, nullptr),
           "a watch on a null name was taken");
    expect(!QUOR(QSSubscriptionReply)(peer.handle(), nullptr, "{}", nullptr), "a push under a null key was taken");
    expect(!QUOR(QSSubscriptionReply)(peer.handle(), "key", nullptr, nullptr), "a null push was taken");
    expect(!QUOR(QSMessageReply)(peer.handle(), nullptr, "{}", nullptr), "a null request was answered");
}

}  // namespace

const Promises& servicePromises()
{
    static const Promises promises = {
        {header, "malformed tables, names and requests are refused", malformedServiceIsRefused},
        {header, "a service answers: the same bytes, the call's token, the loop's thread", answersCalls},
        {header, "a method belongs to its category", categoriesAreApart},
        {header, "a request that is refused, unknown or left without an answer gets an error", failedRequestIsAnswered},
        {header, "a request is answered once", answersOnce},
        {header, "the sender's user id is reported", tellsTheSender},
        {header, "pushes go to subscribers only, in order, with the token of the subscription", pushesToSubscribers},
        {header, "a push without a subscriber is no error", pushWithoutSubscriber},
        {header, "a subscriber that left gets no push", subscriberThatLeftIsForgotten},
        {header, "the 65th subscription of one sender fails", subscriptionsAreLimited},
        {header, "the status of a watched service is reported: the state found, then each change, once",
         serviceStatusIsTold},
        {header, "a name that is taken is not given again", nameIsTakenOnce},
        {header, "unregistering waits for a callback that runs on the loop's thread", unregisterWaits},
    };
    return promises;
}

}  // namespace conformance
