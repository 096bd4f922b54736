// SPDX-License-Identifier: Apache-2.0
//
// The subscribers of a service, by key. One match covers all peers that leave, because the bus limits the matches of a
// connection. Quotas keep one user from using up the subscriptions of the others. Used on the loop's thread.
#ifndef QUOR_SUBSCRIBERS_H
#define QUOR_SUBSCRIBERS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ErrorRecord.h"
#include "SignalMatch.h"

namespace quor {

struct Subscriber {
    std::string peer;  // its unique name
    std::uint32_t serial;
    std::string path;
};

class Subscribers {
public:
    Subscribers() = default;
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    /// Adds the sender of a request. The failure says which quota is used up.
    Failure add(const std::string& key, sd_bus_message* request);
    const std::vector<Subscriber>& of(const std::string& key) const;
    /// For the loss of the bus.
    void clear();

private:
    struct Peer {
        uid_t user;
        int subscriptions;
    };

    Failure listenForDepartures(sd_bus* bus);
    Failure admit(const std::string& name, sd_bus_message* request);
    void forget(const std::string& name);

    std::map<std::string, std::vector<Subscriber>> mSubscribers;  // by key
    std::map<std::string, Peer> mPeers;                           // by unique name
    std::map<uid_t, int> mUsers;                                  // subscriptions of each
    std::unique_ptr<systembus::SignalMatch> mDepartures;
};

}  // namespace quor

#endif
