// SPDX-License-Identifier: Apache-2.0
//
// Recording service bus. Nothing is delivered by itself: a test takes the recorded callback and calls it.
#ifndef FAKE_QUORSERVICE_H
#define FAKE_QUORSERVICE_H

#include <functional>
#include <string>
#include <vector>

#include "quorservice.h"

struct QSHandle {
    int number;
};

struct QSMessage {
    const char* payload;
    QSMessageToken token;
};

namespace fakes {

struct BusCall {
    QSHandle* handle;
    std::string uri;
    std::string payload;
    QSReplyCallback callback;
    void* userData;
    bool wantsToken;
};

struct BusState {
    /// Name of the operation that fails ("QSCall"), empty for none.
    std::string failing;
    std::vector<BusCall> calls;
    /// Told of each accepted call, on the caller's thread.
    std::function<void(const BusCall&)> onCall;
    /// Told of every operation but those of error records, while it is made.
    std::function<void(const std::string& operation)> onOperation;
    QSServerStatusCallback statusCallback = nullptr;
    std::string watchedService;
    void* statusUserData = nullptr;
    _GMainLoop* loop = nullptr;  // the one attached last
    QSHandle* handle = nullptr;  // the one used last, other than for registering
    QSMethod* methods = nullptr;
    bool noSignalsOrProperties = false;
    int errorsInitialised = 0;
    bool errorWasInitialised = false;  // of the call made last
    int errorsFilled = 0;
    int errorsFreed = 0;
};
/// The state; assign BusState{} to begin anew.
BusState& bus();

}  // namespace fakes

#endif
