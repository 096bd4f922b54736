// SPDX-License-Identifier: Apache-2.0
//
// System calls that fail, or that the test looks into, at a chosen occurrence. A test executable that has
// SystemCallFaults.cpp among its sources must be linked with a --wrap option for each call. Calls behave as ever unless
// a Watch lives; one at a time, one thread.
#ifndef SYSTEMCALLFAULTS_H
#define SYSTEMCALLFAULTS_H

#include <cstddef>
#include <functional>
#include <map>
#include <ostream>

namespace faults {

enum class Call { Open, Read, Write, Close, Stat, Mmap, Munmap, Opendir, Readdir, Mkdir, Unlink };
constexpr Call allCalls[] = {Call::Open,   Call::Read,    Call::Write,   Call::Close, Call::Stat,  Call::Mmap,
                             Call::Munmap, Call::Opendir, Call::Readdir, Call::Mkdir, Call::Unlink};

const char* nameOf(Call call);
inline std::ostream& operator<<(std::ostream& stream, Call call)
{
    return stream << nameOf(call);
}

/// Looks at every call while it lives.
class Watch {
public:
    Watch();
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Lets the given occurrence (the first is 1) of the call fail with an errno value, and all later ones if wanted.
    /// A failing close() closes all the same, as the kernel does.
    void fail(Call call, unsigned int occurrence, int error, bool forEver = false);
    /// Runs something right before an occurrence.
    void before(Call call, unsigned int occurrence, std::function<void()> action);
    /// Moves no more than this many bytes in one read() or write().
    void setBlock(std::size_t bytes) { mBlock = bytes; }
    /// Lets mmap() map there instead of where the kernel would.
    void setMappingAddress(void* address) { mMappingAddress = address; }

    unsigned int count(Call call) const;
    /// True when a failure was delivered.
    bool hit() const { return mHit; }
    std::size_t lastUnmapLength() const { return mLastUnmapLength; }
    /// The most that one read() was asked for.
    std::size_t largestRead() const { return mLargestRead; }

    // For the wrapped calls only.
    bool failsNow(Call call);
    std::size_t shortened(std::size_t bytes) const { return mBlock != 0 && bytes > mBlock ? mBlock : bytes; }
    void* mappingAddress() const { return mMappingAddress; }
    void noteRead(std::size_t bytes) { mLargestRead = bytes > mLargestRead ? bytes : mLargestRead; }
    void noteUnmap(std::size_t length) { mLastUnmapLength = length; }

private:
    std::map<Call, unsigned int> mCounts;
    bool mFails = false;
    Call mCall = Call::Open;
    unsigned int mOccurrence = 0;
    int mError = 0;
    bool mForEver = false;
    bool mHit = false;
    std::map<std::pair<Call, unsigned int>, std::function<void()>> mActions;
    bool mInAction = false;
    std::size_t mBlock = 0;
    void* mMappingAddress = nullptr;
    std::size_t mLastUnmapLength = 0;
    std::size_t mLargestRead = 0;
};

}  // namespace faults

#endif
