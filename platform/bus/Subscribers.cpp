// SPDX-License-Identifier: Apache-2.0
#include "Subscribers.h"

#include <algorithm>
#include <cerrno>

#include "Sender.h"

namespace quor {

namespace {

constexpr int subscriptionsOfOnePeer = 64;
constexpr int subscriptionsOfOneUser = 128;
constexpr std::size_t peersAtMost = 1024;

}  // namespace

Failure Subscribers::add(const std::string& key, sd_bus_message* request)
{
    const char* sender = sd_bus_message_get_sender(request);
    if (sender == nullptr) return QUOR_FAILURE(-EINVAL, "the request has no sender");
    const std::string name = sender;
    if (Failure failure = listenForDepartures(sd_bus_message_get_bus(request))) return failure;
    if (Failure failure = admit(name, request)) return failure;
    std::uint64_t serial = 0;
    sd_bus_message_get_cookie(request, &serial);
    mSubscribers[key].push_back({name, static_cast<std::uint32_t>(serial), sd_bus_message_get_path(request)});
    return {};
}

// Called before the bus is asked about a sender, so that a peer that leaves after the answer is noticed.
Failure Subscribers::listenForDepartures(sd_bus* bus)
{
    if (mDepartures != nullptr) return {};
    auto match = std::make_unique<systembus::SignalMatch>(
        bus, systembus::releasesOfNames(),
        systembus::onOwnerChange([this](const std::string& name, const std::string&) { forget(name); }));
    if (match->result() < 0) return QUOR_FAILURE(match->result(), "the bus cannot be asked who leaves it");
    mDepartures = std::move(match);
    return {};
}

// Counts one more subscription of a peer, unless a quota is used up.
Failure Subscribers::admit(const std::string& name, sd_bus_message* request)
{
    auto peer = mPeers.find(name);
    uid_t user = 0;
    if (peer != mPeers.end()) {
        user = peer->second.user;
        if (peer->second.subscriptions >= subscriptionsOfOnePeer) {
            return QUOR_FAILURE(-ENOBUFS, "the sender has " + std::to_string(subscriptionsOfOnePeer) +
                                              " subscriptions already, the most for one connection");
        }
    } else {
        const auto found = senderUser(request);
        if (!found) return QUOR_FAILURE(-ESRCH, "the sender has left the bus");
        user = *found;
    }
    const auto ofUser = mUsers.find(user);
    if (ofUser != mUsers.end() && ofUser->second >= subscriptionsOfOneUser) {
        return QUOR_FAILURE(-ENOBUFS, "user " + std::to_string(user) + " has " +
                                          std::to_string(subscriptionsOfOneUser) +
                                          " subscriptions already, the most for one user");
    }
    if (peer == mPeers.end()) {
        // Others cannot lock root out.
        if (mPeers.size() >= peersAtMost && user != 0) {
            return QUOR_FAILURE(-ENOBUFS, std::to_string(peersAtMost) + " connections have subscribed already");
        }
        peer = mPeers.insert({name, Peer{user, 0}}).first;
    }
    ++peer->second.subscriptions;
    ++mUsers[user];
    return {};
}

void Subscribers::forget(const std::string& name)
{
    const auto peer = mPeers.find(name);
    if (peer == mPeers.end()) return;
    for (auto& [key, subscribers] : mSubscribers) {
        const auto isGone = [&name](const Subscriber& subscriber) { return subscriber.peer == name; };
        subscribers.erase(std::remove_if(subscribers.begin(), subscribers.end(), isGone), subscribers.end());
    }
    int& ofUser = mUsers[peer->second.user];
    ofUser -= peer->second.subscriptions;
    if (ofUser == 0) mUsers.erase(peer->second.user);
    mPeers.erase(peer);
}

const std::vector<Subscriber>& Subscribers::of(const std::string& key) const
{
    static const std::vector<Subscriber> sNone;
    const auto found = mSubscribers.find(key);
    return found != mSubscribers.end() ? found->second : sNone;
}

void Subscribers::clear()
{
    mDepartures.reset();
    mSubscribers.clear();
    mPeers.clear();
    mUsers.clear();
}

}  // namespace quor
