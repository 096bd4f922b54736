// SPDX-License-Identifier: Apache-2.0
//
// One user of the service bus, with a loop thread and an inbox of its own; and error records.
#ifndef CONFORMANCE_BUSPARTY_H
#define CONFORMANCE_BUSPARTY_H

#include <string>

#include "LoopThread.h"
#include "Platform.h"
#include "quorservice.h"

namespace conformance {

/// An error record that is released, and was empty before.
class ErrorRecord {
public:
    explicit ErrorRecord(Platform& users) : platform(users) { QUOR(QSErrorInit)(&mError); }
    ~ErrorRecord() { QUOR(QSErrorFree)(&mError); }
    ErrorRecord(const ErrorRecord&) = delete;
    ErrorRecord& operator=(const ErrorRecord&) = delete;

    QSError* get() { return &mError; }
    int code() const { return mError.error_code; }
    std::string text() const { return mError.message != nullptr ? mError.message : "(no message)"; }
    /// Throws Broken unless it tells a failure as the header says.
    void expectFilled(const std::string& after) const;

private:
    Platform& platform;
    QSError mError;
};

/// Registered as long as it lives, or until leave(). Throws Untestable where the device has no bus or does not give
/// the name.
class BusParty {
public:
    enum class Attached { yes, no };
    explicit BusParty(Platform& platform, Attached attached = Attached::yes, bool asService = false);
    ~BusParty();
    BusParty(const BusParty&) = delete;
    BusParty& operator=(const BusParty&) = delete;

    QSHandle* handle() const { return mHandle; }
    LoopThread& thread() { return mThread; }
    Inbox& inbox() { return mInbox; }

    void attach();
    void leave();
    /// Calls with the inbox as the place for replies. Throws Broken when the call is refused.
    QSMessageToken call(const std::string& uri, const std::string& payload);

    /// For QSCall() and QSRegisterServerStatus() with this party as user data.
    static bool onReply(QSHandle* handle, QSMessage* message, void* party);
    static bool onStatus(QSHandle* handle, const char* service, bool connected, void* party);

protected:
    Platform& platform;

private:
    Inbox mInbox;
    LoopThread mThread;
    QSHandle* mHandle = nullptr;
};

/// A service with the methods echo, silent, refuse, watch, twice and who, in the root category; those of a category
/// below are `where` only.
class BusService : public BusParty {
public:
    explicit BusService(Platform& platform);
    /// "vesk://NAME/METHOD".
    std::string uri(const std::string& method) const;
    void push(const std::string& payload);
};

/// Throws Broken unless the payload is the one that stands for a call without an answer.
void expectErrorReply(const std::string& payload);

}  // namespace conformance

#endif
