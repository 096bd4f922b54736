// SPDX-License-Identifier: Apache-2.0
#include "NameClaim.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Log.h"
#include "OutOfMemory.h"

namespace quor {

namespace {

constexpr std::int64_t firstPause = G_USEC_PER_SEC;
constexpr std::int64_t longestPause = std::int64_t{60} * G_USEC_PER_SEC;

// Answers of the bus to RequestName.
constexpr std::uint32_t primaryOwner = 1;
constexpr std::uint32_t alreadyOwner = 4;

}  // namespace

int NameClaim::requestAndWait()
{
    if (mName.empty()) return 0;
    const int result = sd_bus_request_name(mConnection.bus(), mName.c_str(), 0);
    mIsOwned = result >= 0;
    return std::min(result, 0);
}

void NameClaim::onBusConnected()
{
    if (!mName.empty() && !mIsOwned) request();
}

void NameClaim::onBusLost()
{
    mRequest.reset();
    mOwner.reset();
    mIsOwned = false;
    mPause = 0;
}

void NameClaim::request()
{
    const auto onReply = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        return systembus::guarded([&] {
            static_cast<NameClaim*>(self)->onAnswer(reply);
            return 0;
        });
    };
    const int result = obtain(mRequest, [&](sd_bus_slot** slot) {
        return sd_bus_request_name_async(mConnection.bus(), slot, mName.c_str(), 0, onReply, this);
    });
    if (result < 0) retryLater(std::strerror(-result));
}

void NameClaim::onAnswer(sd_bus_message* reply)
{
    if (sd_bus_message_is_method_error(reply, nullptr) > 0)
        return retryLater(std::strerror(sd_bus_message_get_errno(reply)));
    std::uint32_t answer = 0;
    sd_bus_message_read_basic(reply, 'u', &answer);
    mIsOwned = answer == primaryOwner || answer == alreadyOwner;
    if (!mIsOwned) return waitUntilFree();
    mOwner.reset();
    if (std::exchange(mIsWaiting, false)) QUOR_INFO("the name %s is owned again", mName.c_str());
}

void NameClaim::waitUntilFree()
{
    if (!std::exchange(mIsWaiting, true)) {
        QUOR_WARNING("the name %s is owned by another program since the bus restarted; waiting for it", mName.c_str());
    }
    if (mOwner != nullptr) return;
    mOwner = std::make_unique<systembus::NameWatch>(mConnection.bus(), mName, [this](const std::string& owner) {
        if (owner.empty()) request();
    });
}

void NameClaim::retryLater(const char* reason)
{
    if (!std::exchange(mIsWaiting, true)) {
        QUOR_WARNING("the name %s is refused since the bus restarted: %s; retrying", mName.c_str(), reason);
    }
    mPause = std::clamp(2 * mPause, firstPause, longestPause);
    mConnection.runAfter(mPause, [this] { request(); });
}

}  // namespace quor
