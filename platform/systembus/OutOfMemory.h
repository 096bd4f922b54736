// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out on a loop's thread. An exception must pass neither GLib nor sd-bus, which are C: each callback
// of sd-bus goes through guarded(). The connection that made the callback is then closed and opened anew
// (BusConnection::dispatch), which answers every pending call and adds every match and object again.
#ifndef SYSTEMBUS_OUTOFMEMORY_H
#define SYSTEMBUS_OUTOFMEMORY_H

#include <atomic>
#include <cerrno>
#include <new>

namespace systembus {

/// How often memory ran out in a callback.
inline std::atomic<unsigned> sShortages{0};

/// From a callback: its connection is made anew, as after a shortage.
inline void remakeConnection()
{
    ++sShortages;
}

/// The result of a callback of sd-bus.
template <typename Callback>
int guarded(Callback callback)
{
    try {
        return callback();
    } catch (const std::bad_alloc&) {
        ++sShortages;
        return -ENOMEM;
    }
}

/// The same result, unless it is the one by which sd-bus reports that memory has run out.
inline int orBadAlloc(int result)
{
    if (result == -ENOMEM) throw std::bad_alloc();
    return result;
}

}  // namespace systembus

#endif
