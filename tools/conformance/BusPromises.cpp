// SPDX-License-Identifier: Apache-2.0
//
// The promises of quorservice.h to a client: records, arguments, and calls that nobody answers. They need a bus at
// most, and no service on it.
#include <atomic>
#include <chrono>
#include <cstring>

#include "BusPeer.h"
#include "Threads.h"

namespace conformance {

namespace {

constexpr char header[] = "quorservice.h";

using std::chrono::milliseconds;

constexpr char nobody[] = "vesk://com.vesk.conformance.nobody/method";

void exportsItsFunctions(Platform& platform)
{
    QUOR(QSErrorInit);
    QUOR(QSErrorFree);
    QUOR(QSRegister);
    QUOR(QSUnregister);
    QUOR(QSGmainAttach);
    QUOR(QSRegisterServerStatus);
    QUOR(QSCall);
    QUOR(QSMessageGetPayload);
    QUOR(QSMessageGetResponseToken);
    QUOR(QSRegisterCategory);
    QUOR(QSMessageGetSenderUid);
    QUOR(QSMessageReply);
    QUOR(QSSubscriptionAdd);
    QUOR(QSSubscriptionReply);
}

bool isEmpty(const QSError& error)
{
    return error.error_code == 0 && error.message == nullptr;
}

void initEmptiesRecord(Platform& platform)
{
    QSError error;
    std::memset(&error, 0x5a, sizeof error);
    expect(QUOR(QSErrorInit)(&error), "QSErrorInit() returned false");
    expect(isEmpty(error), "the record is not empty");
}

void freeAcceptsNullAndEmpty(Platform& platform)
{
    QSError error;
    QUOR(QSErrorInit)(&error);
    QUOR(QSErrorFree)(nullptr);
    QUOR(QSErrorFree)(&error);
    QUOR(QSErrorFree)(&error);
    expect(isEmpty(error), "the record is not empty");
}

void failureFillsRecord(Platform& platform)
{
    ErrorRecord error(platform);
    expect(!QUOR(QSRegister)("no bus name", nullptr, error.get()),
           "QSRegister() without a place for the handle succeeded");
    error.expectFilled("QSRegister() without a place for the handle");
    QUOR(QSErrorFree)(error.get());
    expect(isEmpty(*error.get()), "QSErrorFree() left something in the record");
}

void recordIsOptional(Platform& platform)
{
    expect(!QUOR(QSRegister)(nullptr, nullptr, nullptr), "QSRegister() without a place for the handle succeeded");
    expect(!QUOR(QSUnregister)(nullptr, nullptr), "QSUnregister() of a null handle succeeded");
}

void nullHandleIsRefused(Platform& platform)
{
    static QSMethod methods[] = {{nullptr, nullptr}};
    GMainContextPtr context(g_main_context_new());
    GMainLoopPtr loop(g_main_loop_new(context.get(), FALSE));
    const auto refused = [&platform](const char* operation, auto perform) {
        ErrorRecord error(platform);
        expect(!perform(error.get()), std::string(operation) + "() with a null handle succeeded");
        expect(error.code() == QS_ERROR_BAD_HANDLE, std::string(operation) + "() with a null handle gave the error " +
                                                        std::to_string(error.code()) + ", not QS_ERROR_BAD_HANDLE");
        error.expectFilled(operation);
    };
    refused("QSUnregister", [&](QSError* e) { return QUOR(QSUnregister)(nullptr, e); });
    refused("QSGmainAttach", [&](QSError* e) { return QUOR(QSGmainAttach)(nullptr, loop.get(), e); });
    refused("QSRegisterServerStatus",
            [&](QSError* e) { return QUOR(QSRegisterServerStatus)(nullptr, "a.b", BusPeer::onStatus, nullptr, e); });
    refused("QSCall",
            [&](QSError* e) { return QUOR(QSCall)(nullptr, nobody, "{}", BusPeer::onReply, nullptr, nullptr, e); });
    refused("QSRegisterCategory",
            [&](QSError* e) { return QUOR(QSRegisterCategory)(nullptr, "/", methods, nullptr, nullptr, e); });
    refused("QSMessageReply", [&](QSError* e) { return QUOR(QSMessageReply)(nullptr, nullptr, "{}", e); });
    refused("QSSubscriptionAdd", [&](QSError* e) { return QUOR(QSSubscriptionAdd)(nullptr, "key", nullptr, e); });
    refused("QSSubscriptionReply", [&](QSError* e) { return QUOR(QSSubscriptionReply)(nullptr, "key", "{}", e); });
}

void nullMessageIsEmpty(Platform& platform)
{
    unsigned int uid = 0;
    expect(QUOR(QSMessageGetPayload)(nullptr) == nullptr, "a null message has a payload");
    expect(QUOR(QSMessageGetResponseToken)(nullptr) == 0, "a null message has a token");
    expect(!QUOR(QSMessageGetSenderUid)(nullptr, &uid), "a null message has a sender");
}

void failedRegisterLeavesHandle(Platform& platform)
{
    auto* mark = reinterpret_cast<QSHandle*>(&platform);
    QSHandle* handle = mark;
    ErrorRecord error(platform);
    expect(!QUOR(QSRegister)("no bus name", &handle, error.get()), "the name \"no bus name\" could be registered");
    expect(handle == mark, "the handle was changed");
    error.expectFilled("QSRegister(\"no bus name\")");
}

void registersAnonymously(Platform& platform)
{
    BusPeer peer(platform);
    peer.leave();
}

void attachesOnce(Platform& platform)
{
    BusPeer peer(platform, BusPeer::Attached::No);
    ErrorRecord error(platform);
    expect(!QUOR(QSGmainAttach)(peer.handle(), nullptr, error.get()), "a null loop was taken");
    error.expectFilled("QSGmainAttach() of a null loop");
    peer.attach();
    expect(!QUOR(QSGmainAttach)(peer.handle(), peer.thread().loop(), nullptr), "a handle was attached twice");
}

void malformedCallIsRefused(Platform& platform)
{
    BusPeer peer(platform);
    const auto refused = [&](const char* uri, const char* payload) {
        ErrorRecord error(platform);
        const std::string call =
            std::string("QSCall(") + (uri ? uri : "null") + ", " + (payload ? payload : "null") + ")";
        expect(!QUOR(QSCall)(peer.handle(), uri, payload, BusPeer::onReply, &peer, nullptr, error.get()),
               call + " was accepted");
        expect(error.code() == QS_ERROR_BAD_ARGUMENT, call + " gave the error " + std::to_string(error.code()));
        error.expectFilled(call);
    };
    for (const char* uri : {static_cast<const char*>(nullptr), "", "vesk://", "vesk://com.vesk.a", "vesk://com.vesk.a/",
                            "vesk:///method", "http://com.vesk.a/method", "com.vesk.a/method"}) {
        refused(uri, "{}");
    }
    for (const char* payload :
         {static_cast<const char*>(nullptr), "", "[]", "7", "\"text\"", "{", "{} {}", "{\"a\":\xff}"}) {
        refused(nobody, payload);
    }
    peer.thread().call([] {});
    expect(peer.mailbox().size() == 0, "a refused call was answered");
}

void callWithoutServiceIsAnswered(Platform& platform)
{
    BusPeer peer(platform);
    const QSMessageToken token = peer.call(nobody, "{}");
    const auto replies = peer.mailbox().wait(1);
    expect(replies.size() == 1, "no reply within five seconds");
    expectErrorReply(replies[0].text);
    expect(replies[0].token == token, "the reply carries another token than the call");
    expect(replies[0].thread == peer.thread().id(), "the reply came on another thread than the loop's");
    expect(peer.mailbox().wait(2, milliseconds(200)).size() == 1, "there was a second reply");
}

void replyNeverInsideCall(Platform& platform)
{
    BusPeer peer(platform);
    std::size_t seen = 0;
    peer.thread().call([&] {
        peer.call(nobody, "{}");
        seen = peer.mailbox().size();
    });
    expect(seen == 0, "the reply came from inside QSCall()");
    expect(peer.mailbox().wait(1).size() == 1, "no reply within five seconds");
}

void nothingSentBeforeAttach(Platform& platform)
{
    BusPeer peer(platform, BusPeer::Attached::No);
    peer.call(nobody, "{}");
    expect(peer.mailbox().wait(1, milliseconds(200)).empty(), "a reply came before the loop was attached");
    peer.attach();
    expect(peer.mailbox().wait(1).size() == 1, "no reply within five seconds of attaching");
}

void callbackAndTokenMayBeNull(Platform& platform)
{
    BusPeer peer(platform);
    expect(QUOR(QSCall)(peer.handle(), nobody, "{}", nullptr, nullptr, nullptr, nullptr), "the call was refused");
    peer.call(nobody, "{}");
    expect(peer.mailbox().wait(1).size() == 1, "no reply to the call after it");
}

void tokensDiffer(Platform& platform)
{
    BusPeer peer(platform);
    expect(peer.call(nobody, "{}") != peer.call(nobody, "{}"), "two calls have one token");
}

void callsFromAnyThread(Platform& platform)
{
    BusPeer peer(platform);
    std::atomic<int> refused{0};
    auto& call = QUOR(QSCall);
    onThreads(4, [&](int) {
        for (int round = 0; round < 50; ++round)
            refused += call(peer.handle(), nobody, "{}", BusPeer::onReply, &peer, nullptr, nullptr) ? 0 : 1;
    });
    expect(refused == 0, std::to_string(refused) + " of 200 calls were refused");
    const auto replies = peer.mailbox().wait(200);
    expect(replies.size() == 200, "200 calls from four threads got " + std::to_string(replies.size()) + " replies");
    for (const CallbackEntry& entry : replies)
        expect(entry.thread == peer.thread().id(), "a reply came on another thread than the loop's");
}

void noReplyAfterUnregister(Platform& platform)
{
    BusPeer peer(platform);
    peer.thread().call([&] {  // where no reply can come in between
        peer.call(nobody, "{}");
        peer.leave();
    });
    expect(peer.mailbox().wait(1, milliseconds(200)).empty(), "a call was answered after QSUnregister()");
}

void ownerMayReleaseTheLoop(Platform& platform)
{
    BusPeer peer(platform, BusPeer::Attached::No);
    GMainContextPtr context(g_main_context_new());
    GMainLoopPtr loop(g_main_loop_new(context.get(), FALSE));
    expect(QUOR(QSGmainAttach)(peer.handle(), loop.get(), nullptr), "QSGmainAttach() failed");
    loop.reset();
    context.reset();
    peer.call(nobody, "{}");
    peer.leave();
}

void leavesNothingBehind(Platform& platform)
{
    const auto use = [&platform] {
        BusPeer peer(platform);
        peer.call(nobody, "{}");
        peer.mailbox().wait(1);
        peer.leave();
    };
    use();
    platform.unload("quorservice.h");
    const ProcessResources before = currentResources();
    for (int round = 0; round < 10; ++round) {
        use();
        platform.unload("quorservice.h");
    }
    expectNothingLeft(before);
}

void unloadDisconnects(Platform& platform)
{
    {
        BusPeer(platform).leave();
    }
    const ProcessResources before = currentResources();
    for (int round = 0; round < 10; ++round) {
        {
            QSHandle* handle = nullptr;
            wfoal::LoopThread thread;  // ends first: nothing may run in a library that is being unloaded
            expect(QUOR(QSRegister)(nullptr, &handle, nullptr) && QUOR(QSGmainAttach)(handle, thread.loop(), nullptr),
                   "registering anew failed");
        }
        platform.unload("quorservice.h");
    }
    expectNothingLeft(before);
}

void callTimesOut(Platform&)
{
    throw Untestable{"would take 120 seconds"};
}

void busIsRestarted(Platform&)
{
    throw Untestable{"would restart the device's bus"};
}

}  // namespace

const Promises& busPromises()
{
    static const Promises promises = {
        {header, "exports its fourteen functions", exportsItsFunctions},
        {header, "initialising makes an error record empty", initEmptiesRecord},
        {header, "releasing accepts null and empty error records", freeAcceptsNullAndEmpty},
        {header, "a failure fills the error record, and releasing empties it", failureFillsRecord},
        {header, "the error record may be left out", recordIsOptional},
        {header, "every operation refuses a null handle as QS_ERROR_BAD_HANDLE", nullHandleIsRefused},
        {header, "a null message has neither payload, token nor sender", nullMessageIsEmpty},
        {header, "a failed registration leaves the caller's handle alone", failedRegisterLeavesHandle},
        {header, "an anonymous client can register and unregister", registersAnonymously},
        {header, "a handle is attached to a loop, and once only", attachesOnce},
        {header, "a malformed URI or payload is refused as QS_ERROR_BAD_ARGUMENT", malformedCallIsRefused},
        {header, "a call to nobody gets one reply: an error, with the call's token, on the loop's thread",
         callWithoutServiceIsAnswered},
        {header, "a reply never comes from inside the call", replyNeverInsideCall},
        {header, "nothing is sent before a loop is attached", nothingSentBeforeAttach},
        {header, "callback and token of a call may be null", callbackAndTokenMayBeNull},
        {header, "each call has a token of its own", tokensDiffer},
        {header, "calls may come from any thread; every reply comes on the loop's", callsFromAnyThread},
        {header, "calls that wait for a reply get none after unregistering", noReplyAfterUnregister},
        {header, "the loop's owner may release it once it is attached", ownerMayReleaseTheLoop},
        {header, "unregistering and unloading leave no descriptor and no thread", leavesNothingBehind},
        {header, "handles that are left are disconnected when the library is unloaded", unloadDisconnects},
        {header, "a call without an answer is answered after 120 seconds", callTimesOut},
        {header, "after a restart of the bus the handle connects again", busIsRestarted},
    };
    return promises;
}

}  // namespace conformance
