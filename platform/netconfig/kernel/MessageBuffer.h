// SPDX-License-Identifier: Apache-2.0
//
// Netlink messages one after the other, as one system call sends them. Begins small and is not filled beforehand: most
// requests take a few kilobytes, and the kernel would have to provide what is written to.
#ifndef VKNETCONFIG_MESSAGEBUFFER_H
#define VKNETCONFIG_MESSAGEBUFFER_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace vknetconfig {

class MessageBuffer {
public:
    /// Where the next message begins; at least `room` bytes may be written there. Moves the earlier ones.
    char* place(std::size_t room)
    {
        if (mSize - mUsed < room) grow(room);
        return mBytes.get() + mUsed;
    }
    /// The message at place() is complete.
    void add(std::size_t size) { mUsed += size; }
    void clear() { mUsed = 0; }

    const char* data() const { return mBytes.get(); }
    std::size_t size() const { return mUsed; }

private:
    void grow(std::size_t room)
    {
        const std::size_t size = std::max(2 * mSize, mUsed + room);
        std::unique_ptr<char[]> bytes(new char[size]);
        if (mUsed > 0) std::memcpy(bytes.get(), mBytes.get(), mUsed);
        mBytes = std::move(bytes);
        mSize = size;
    }

    std::unique_ptr<char[]> mBytes;
    std::size_t mSize = 0;
    std::size_t mUsed = 0;
};

}  // namespace vknetconfig

#endif
