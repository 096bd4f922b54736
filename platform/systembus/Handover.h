// SPDX-License-Identifier: Apache-2.0
//
// GLib's own locks are invisible to the thread sanitizer. These tell it that what one thread did to an object before it
// gave it to a main loop came before what the loop's thread does with it. Nothing in other builds.
#ifndef HOSTBUS_HANDOVER_H
#define HOSTBUS_HANDOVER_H

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HOSTBUS_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define HOSTBUS_THREAD_SANITIZER
#endif

#ifdef HOSTBUS_THREAD_SANITIZER
extern "C" void __tsan_acquire(void* object);
extern "C" void __tsan_release(void* object);
#endif

namespace hostbus {

inline void handOver([[maybe_unused]] void* object)
{
#ifdef HOSTBUS_THREAD_SANITIZER
    __tsan_release(object);
#endif
}

inline void takeUp([[maybe_unused]] void* object)
{
#ifdef HOSTBUS_THREAD_SANITIZER
    __tsan_acquire(object);
#endif
}

}  // namespace hostbus

#endif
