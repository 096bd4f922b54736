// SPDX-License-Identifier: Apache-2.0
//
// Both sides of the service bus over a real bus daemon: parties on loops of their own, and a service that one calls.
#ifndef WFOAL_TEST_QUORSERVICEFIXTURE_H
#define WFOAL_TEST_QUORSERVICEFIXTURE_H

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "Daemons.h"
#include "Files.h"
#include "LoopThread.h"
#include "quorservice.h"

namespace testsupport {

inline constexpr char serviceName[] = "com.example.service";

struct Error : QSError {
    Error() { QSErrorInit(this); }
    ~Error() { QSErrorFree(this); }
    std::string text() const { return message != nullptr ? message : ""; }
};

/// A handle on a loop thread of its own.
class Party {
public:
    explicit Party(const char* name = nullptr)
    {
        Error error;
        EXPECT_TRUE(QSRegister(name, &mHandle, &error)) << error.text();
        EXPECT_TRUE(QSGmainAttach(mHandle, mThread.loop(), nullptr));
    }
    ~Party()
    {
        if (mHandle == nullptr) return;
        EXPECT_TRUE(QSUnregister(mHandle, nullptr));
    }
    void unregister()
    {
        EXPECT_TRUE(QSUnregister(mHandle, nullptr));
        mHandle = nullptr;
    }
    QSHandle* handle() const { return mHandle; }
    LoopThread& thread() { return mThread; }

private:
    LoopThread mThread;
    QSHandle* mHandle = nullptr;
};

inline bool onReply(QSHandle*, QSMessage* message, void* mailbox)
{
    static_cast<Mailbox*>(mailbox)->put(QSMessageGetPayload(message));
    return true;
}

inline bool onStatus(QSHandle*, const char* service, bool connected, void* mailbox)
{
    static_cast<Mailbox*>(mailbox)->put(std::string(service) + (connected ? " connected" : " gone"));
    return true;
}

/// Keeps a loop's thread busy for its life, as a service that does not answer.
class Stall {
public:
    explicit Stall(LoopThread& thread)
        : mCaller([this, &thread] {
              thread.call([this] {
                  mBegun.set_value();
                  mOver.get_future().wait();
              });
          })
    {
        mBegun.get_future().wait();
    }
    ~Stall()
    {
        mOver.set_value();
        mCaller.join();
    }

private:
    std::promise<void> mBegun;
    std::promise<void> mOver;
    std::thread mCaller;
};

inline std::atomic<int> sRequests{0};

/// A service with some methods at the root and one below.
class Service : public Party {
public:
    Service() : Party(serviceName)
    {
        static QSMethod root[] = {{"echo", echo},     {"watch", watch}, {"refuse", refuse},
                                  {"forget", forget}, {"twice", twice}, {nullptr, nullptr}};
        static QSMethod below[] = {{"where", where}, {nullptr, nullptr}};
        EXPECT_TRUE(QSRegisterCategory(handle(), "/", root, nullptr, nullptr, nullptr));
        EXPECT_TRUE(QSRegisterCategory(handle(), "/one/two", below, nullptr, nullptr, nullptr));
        thread().call([] {});
    }
    void push(const std::string& payload)
    {
        EXPECT_TRUE(QSSubscriptionReply(handle(), "key", payload.c_str(), nullptr));
    }

private:
    static bool echo(QSHandle* handle, QSMessage* message, void*)
    {
        ++sRequests;
        return QSMessageReply(handle, message, QSMessageGetPayload(message), nullptr);
    }
    static bool watch(QSHandle* handle, QSMessage* message, void*)
    {
        return QSSubscriptionAdd(handle, "key", message, nullptr) &&
               QSMessageReply(handle, message, R"({"state":0})", nullptr);
    }
    static bool refuse(QSHandle*, QSMessage*, void*) { return false; }
    static bool forget(QSHandle*, QSMessage*, void*) { return true; }
    static bool twice(QSHandle* handle, QSMessage* message, void*)
    {
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", nullptr));
        EXPECT_FALSE(QSMessageReply(handle, message, "{}", nullptr));
        return true;
    }
    static bool where(QSHandle* handle, QSMessage* message, void*)
    {
        return QSMessageReply(handle, message, R"({"where":"below"})", nullptr);
    }
};

class QuorServiceTest : public testing::Test {
protected:
    void SetUp() override { mBus = startBus(); }

    static void call(const Party& client, const std::string& method, const std::string& payload, Mailbox& mailbox,
                     QSMessageToken* token = nullptr)
    {
        Error error;
        const std::string uri = std::string("vesk://") + serviceName + "/" + method;
        EXPECT_TRUE(QSCall(client.handle(), uri.c_str(), payload.c_str(), onReply, &mailbox, token, &error))
            << error.text();
    }
    static std::string errorText(const std::string& payload)
    {
        json_object* object = json_tokener_parse(payload.c_str());
        EXPECT_FALSE(json_object_get_boolean(json_object_object_get(object, "returnValue"))) << payload;
        EXPECT_EQ(-1, json_object_get_int(json_object_object_get(object, "errorCode"))) << payload;
        const char* text = json_object_get_string(json_object_object_get(object, "errorText"));
        const std::string result = text != nullptr ? text : "no errorText";
        json_object_put(object);
        return result;
    }

    void restartBus()
    {
        mBus.sendSignal(SIGKILL);
        mBus.wait();
        mBus = startBus();
    }

    ChildProcess mBus;
};

}  // namespace testsupport

#endif
