// SPDX-License-Identifier: Apache-2.0
//
// The thread sanitizer does not see GLib's own locks. When one thread gives an object to a main loop, it calls
// tsanRelease(); the loop's thread calls tsanAcquire(). In other builds both do nothing.
#ifndef SYSTEMBUS_TSANANNOTATIONS_H
#define SYSTEMBUS_TSANANNOTATIONS_H

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SYSTEMBUS_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define SYSTEMBUS_THREAD_SANITIZER
#endif

#ifdef SYSTEMBUS_THREAD_SANITIZER
extern "C" void __tsan_acquire(void* object);
extern "C" void __tsan_release(void* object);
#endif

namespace systembus {

inline void tsanRelease([[maybe_unused]] void* object)
{
#ifdef SYSTEMBUS_THREAD_SANITIZER
    __tsan_release(object);
#endif
}

inline void tsanAcquire([[maybe_unused]] void* object)
{
#ifdef SYSTEMBUS_THREAD_SANITIZER
    __tsan_acquire(object);
#endif
}

}  // namespace systembus

#endif
