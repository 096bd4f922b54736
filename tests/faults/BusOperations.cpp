// SPDX-License-Identifier: Apache-2.0
//
// The service bus, both sides of it, and the power daemon's client.
#include <atomic>
#include <chrono>

#include "Daemons.h"
#include "LoopThread.h"
#include "Operation.h"
#include "powerd.h"
#include "quorservice.h"

namespace faults {

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using testsupport::LoopThread;

constexpr char service[] = "com.example.service";
constexpr char uri[] = "vesk://com.example.service/part/ask";
constexpr auto longestWait = seconds(20);

/// Waits without a call that could fail for long.
template <typename Condition>
bool comesTrue(const Condition& condition, std::chrono::steady_clock::duration limit = longestWait)
{
    const auto end = steady_clock::now() + limit;
    while (!condition()) {
        if (steady_clock::now() > end) return false;
        usleep(2000);
    }
    return true;
}

struct Answers {
    std::atomic<int> count{0};
    std::atomic<int> good{0};
};

bool onAnswer(QSHandle*, QSMessage* message, void* data)
{
    auto& answers = *static_cast<Answers*>(data);
    const char* payload = QSMessageGetPayload(message);
    if (payload != nullptr && __builtin_strstr(payload, "true") != nullptr) ++answers.good;
    ++answers.count;
    return true;
}

bool onStatus(QSHandle*, const char*, bool, void*)
{
    return true;
}

bool onAsk(QSHandle* handle, QSMessage* request, void*)
{
    if (!QSSubscriptionAdd(handle, "key", request, nullptr)) return false;
    return QSMessageReply(handle, request, R"({"returnValue":true})", nullptr);
}

QSMethod sMethods[] = {{"ask", onAsk}, {nullptr, nullptr}};

/// A service in this process, so that faults strike both sides.
class Service {
public:
    Service()
    {
        QSHandle* handle = nullptr;
        if (!QSRegister(service, &handle, nullptr)) throw std::runtime_error("no bus");
        mpHandle = handle;
        QSRegisterCategory(mpHandle, "/part", sMethods, nullptr, nullptr, nullptr);
        QSGmainAttach(mpHandle, mThread.loop(), nullptr);
    }
    ~Service() { QSUnregister(mpHandle, nullptr); }
    QSHandle* handle() const { return mpHandle; }

private:
    LoopThread mThread;
    QSHandle* mpHandle = nullptr;
};

/// A client from its registration to its end.
class ClientLife : public Operation {
    int act() override
    {
        QSHandle* handle = nullptr;
        if (!QSRegister(nullptr, &handle, nullptr)) return 1;
        int result = 2;
        if (QSGmainAttach(handle, mThread.loop(), nullptr)) {
            result = QSRegisterServerStatus(handle, service, onStatus, nullptr, nullptr) ? 0 : 3;
        }
        if (!QSUnregister(handle, nullptr)) result = 5;
        return result;
    }

    testsupport::ChildProcess mBus = testsupport::startBus();
    Service mService;
    LoopThread mThread;
};

/// A service from its registration to its end.
class ServiceLife : public Operation {
    // A connection with a part of a path, which sd-bus could not free.
    long keptAfterFault() const override { return 12; }

    int act() override
    {
        QSHandle* handle = nullptr;
        if (!QSRegister("com.example.life", &handle, nullptr)) return 1;
        int result = 0;
        if (!QSRegisterCategory(handle, "/part", sMethods, nullptr, nullptr, nullptr)) result = 2;
        if (result == 0 && !QSGmainAttach(handle, mThread.loop(), nullptr)) result = 3;
        if (!QSUnregister(handle, nullptr)) result = 5;
        return result;
    }

    testsupport::ChildProcess mBus = testsupport::startBus();
    LoopThread mThread;
};

/// A call with a subscription, its answer, and a push.
class CallAndPush : public Operation {
    // A client each time, as the service lets one have so many subscriptions only.
    void begin() override
    {
        mAnswers.count = 0;
        mAnswers.good = 0;
        const bool works = comesTrue([this] {
            if (mpHandle != nullptr) QSUnregister(mpHandle, nullptr);
            mpHandle = nullptr;
            mProbe.count = 0;
            mProbe.good = 0;
            if (!QSRegister(nullptr, &mpHandle, nullptr) || !QSGmainAttach(mpHandle, mThread.loop(), nullptr) ||
                !QSCall(mpHandle, uri, "{}", onAnswer, &mProbe, nullptr, nullptr)) {
                return false;
            }
            return comesTrue([this] { return mProbe.count > 0; }) && mProbe.good > 0;
        });
        expect(works, "after a fault no call succeeds any more");
    }
    void end() override
    {
        if (mpHandle != nullptr) QSUnregister(mpHandle, nullptr);
        mpHandle = nullptr;
    }
    int act() override
    {
        if (!QSCall(mpHandle, uri, R"({"subscribe":true})", onAnswer, &mAnswers, nullptr, nullptr)) return 1;
        // Long enough for an answer without a fault; one that goes on for ever may hold it up until it ends.
        comesTrue([this] { return mAnswers.count > 0; }, std::chrono::milliseconds(300));
        QSSubscriptionReply(mService.handle(), "key", R"({"pushed":true})", nullptr);
        return 0;
    }
    void judge(int result, const Disturbance& disturbance) override
    {
        if (result != 0) return;
        expect(comesTrue([this] { return mAnswers.count > 0; }), "an accepted call gets no answer");
        expect(!disturbance.isUndisturbed || mAnswers.good > 0, "the answer is an error without a fault");
    }

    testsupport::ChildProcess mBus = testsupport::startBus();
    Service mService;
    LoopThread mThread;
    QSHandle* mpHandle = nullptr;
    Answers mProbe;
    Answers mAnswers;
};

void doNothing() {}

class PowerClient : public Operation {
    int act() override
    {
        int result = 0;
        if (!PowerdGmainAttach(mThread.loop())) result = 1;
        if (!PowerdClientInit("sweep")) result = 2;
        if (!PowerdResumeRegister(doNothing) || !PowerdSuspendedRegister(doNothing) ||
            !PowerdPrepareSuspendRegister(doNothing)) {
            result = 3;
        }
        if (!PowerdClientDeinit()) result = 4;
        return result;
    }

    testsupport::ChildProcess mBus = testsupport::startBus();
    LoopThread mThread;
};

}  // namespace

Entries busOperations()
{
    return {
        {"QSRegister-QSUnregister", make<ClientLife>, 0, {0, 1, 2, 3}},
        {"QSRegister-QSRegisterCategory", make<ServiceLife>, 0, {0, 1, 2, 3}},
        {"QSCall-QSSubscriptionReply", make<CallAndPush>, 0, {0, 1}},
        {"Powerd", make<PowerClient>, 0, {0, 1, 2, 3}},
    };
}

}  // namespace faults
