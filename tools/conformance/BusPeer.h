// SPDX-License-Identifier: Apache-2.0
//
// One client of the service bus, with a loop thread and a mailbox of its own; and error records.
#ifndef CONFORMANCE_BUSPEER_H
#define CONFORMANCE_BUSPEER_H

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Platform.h"
#include "loop/LoopThread.h"
#include "loop/Mailbox.h"
#include "quorservice.h"

namespace conformance {

/// What a callback was told, and on which thread.
struct CallbackEntry {
    std::string text;
    unsigned long token = 0;
    std::thread::id thread = std::this_thread::get_id();
};

/// The limit of most promises is five seconds.
class CallbackMailbox : public wfoal::Mailbox<CallbackEntry> {
public:
    std::vector<CallbackEntry> wait(std::size_t count, std::chrono::milliseconds atMost = std::chrono::seconds(5)) const
    {
        return Mailbox::wait(count, atMost);
    }
};

/// An error record that is initialised and released.
class ErrorRecord {
public:
    explicit ErrorRecord(Platform& users) : platform(users) { QUOR(QSErrorInit)(&mError); }
    ~ErrorRecord() { QUOR(QSErrorFree)(&mError); }
    ErrorRecord(const ErrorRecord&) = delete;
    ErrorRecord& operator=(const ErrorRecord&) = delete;

    QSError* get() { return &mError; }
    int code() const { return mError.error_code; }
    std::string text() const { return mError.message != nullptr ? mError.message : "(no message)"; }
    /// Throws Broken unless it describes a failure as the header says.
    void expectFilled(const std::string& after) const;

private:
    Platform& platform;
    QSError mError;
};

/// Registered until leave() or the end of the object. Throws Untestable where the device has no bus or refuses the
/// name.
class BusPeer {
public:
    enum class Attached { Yes, No };
    explicit BusPeer(Platform& platform, Attached attached = Attached::Yes, bool asService = false);
    ~BusPeer();
    BusPeer(const BusPeer&) = delete;
    BusPeer& operator=(const BusPeer&) = delete;

    QSHandle* handle() const { return mHandle; }
    wfoal::LoopThread& thread() { return mThread; }
    CallbackMailbox& mailbox() { return mMailbox; }

    void attach();
    void leave();
    /// Calls a method; replies go to the mailbox. Throws Broken when the call is refused.
    QSMessageToken call(const std::string& uri, const std::string& payload);

    /// For QSCall() and QSRegisterServerStatus() with this peer as user data.
    static bool onReply(QSHandle* handle, QSMessage* message, void* peer);
    static bool onStatus(QSHandle* handle, const char* service, bool connected, void* peer);

protected:
    Platform& platform;

private:
    CallbackMailbox mMailbox;
    wfoal::LoopThread mThread;
    QSHandle* mHandle = nullptr;
};

/// A service with the methods echo, silent, refuse, watch, twice and who, in the root category; those of a category
/// below are `where` only.
class BusService : public BusPeer {
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
