// SPDX-License-Identifier: Apache-2.0
#include "SignalMatch.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "OutOfMemory.h"

namespace systembus {

namespace {

// A well-known name would let signals of everybody through.
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

SignalRule nameOwnerChanged(const std::string& arguments)
{
    return {daemonName, daemonPath, daemonName, "NameOwnerChanged", arguments};
}

}  // namespace

SignalRule ownerChangesOf(const std::string& name)
{
    return nameOwnerChanged("arg0='" + name + "'");
}

SignalRule releasesOfNames()
{
    return nameOwnerChanged("arg2=''");
}

SignalMatch::Handler onOwnerChange(std::function<void(const std::string& name, const std::string& owner)> handler)
{
    return [handler = std::move(handler)](sd_bus_message* signal) {
        const char* name = nullptr;
        const char* earlier = nullptr;
        const char* owner = nullptr;
        if (sd_bus_message_read(signal, "sss", &name, &earlier, &owner) > 0) handler(name, owner);
    };
}

SignalMatch::SignalMatch(sd_bus* bus, const SignalRule& rule, Handler handler)
    : mSender(rule.sender), mHandler(std::move(handler))
{
    const int result = obtain(mSlot, [&](sd_bus_slot** slot) {
        return isNameOfOneSender(mSender)
                   ? sd_bus_add_match_async(bus, slot, textOf(rule).c_str(), onSignal, nullptr, this)
                   : -EINVAL;
    });
    mResult = std::min(result, 0);
}

int SignalMatch::onSignal(sd_bus_message* signal, void* self, sd_bus_error*)
{
    const auto* match = static_cast<const SignalMatch*>(self);
    const char* sender = sd_bus_message_get_sender(signal);
    if (sender == nullptr || match->mSender != sender) return 0;
    return guarded([&] {
        const Handler handler = match->mHandler;  // the call may destroy the match
        handler(signal);
        return 0;
    });
}

}  // namespace systembus
