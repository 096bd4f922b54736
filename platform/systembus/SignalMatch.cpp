// SPDX-License-Identifier: Apache-2.0
#include "SignalMatch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace hostbus {

namespace {

// A well-known name would let everybody through.
bool isNameOfOneSender(const std::string& sender)
{
    return sender == daemonName || (!sender.empty() && sender.front() == ':');
}

std::string textOf(const SignalRule& rule)
{
    std::string text = "type='signal',sender='" + rule.sender + "',path='" + rule.path + "',interface='" +
                       rule.interface + "',member='" + rule.member + "'";
    if (!rule.arguments.empty()) text += "," + rule.arguments;
    return text;
}

}  // namespace

SignalRule nameOwnerChanged(const std::string& arguments)
{
    return {daemonName, daemonPath, daemonName, "NameOwnerChanged", arguments};
}

SignalMatch::SignalMatch(sd_bus* bus, const SignalRule& rule, Handler handler)
    : mSender(rule.sender), mHandler(std::move(handler))
{
    sd_bus_slot* slot = nullptr;
    mResult = isNameOfOneSender(mSender)
                  ? sd_bus_add_match_async(bus, &slot, textOf(rule).c_str(), onSignal, nullptr, this)
                  : -EINVAL;
    mSlot.reset(slot);
    mResult = std::min(mResult, 0);
}

int SignalMatch::onSignal(sd_bus_message* signal, void* self, sd_bus_error*)
{
    const auto* match = static_cast<const SignalMatch*>(self);
    const char* sender = sd_bus_message_get_sender(signal);
    if (sender == nullptr || match->mSender != sender) return 0;
    const Handler handler = match->mHandler;  // the match may be gone when it returns
    handler(signal);
    return 0;
}

}  // namespace hostbus
