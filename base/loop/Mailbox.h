// SPDX-License-Identifier: Apache-2.0
//
// Where callbacks leave what they were told, in order, from any thread.
#ifndef WFOAL_MAILBOX_H
#define WFOAL_MAILBOX_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace wfoal {

template <class Message>
class Mailbox {
public:
    void put(Message message)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mMessages.push_back(std::move(message));
        mChanged.notify_all();
    }
    std::vector<Message> all() const
    {
        const std::lock_guard<std::mutex> lock(mLock);
        return mMessages;
    }
    std::size_t size() const
    {
        const std::lock_guard<std::mutex> lock(mLock);
        return mMessages.size();
    }
    void clear()
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mMessages.clear();
    }
    /// Waits until there are `count` messages, for `atMost`, and returns all there are.
    std::vector<Message> wait(std::size_t count, std::chrono::milliseconds atMost = std::chrono::minutes(1)) const
    {
        std::unique_lock<std::mutex> lock(mLock);
        mChanged.wait_for(lock, atMost, [&] { return mMessages.size() >= count; });
        return mMessages;
    }

private:
    mutable std::mutex mLock;
    mutable std::condition_variable mChanged;
    std::vector<Message> mMessages;
};

}  // namespace wfoal

#endif
