// SPDX-License-Identifier: Apache-2.0
//
// Limits of the kernel for this process, each for as long as its object lives.
#ifndef TESTSUPPORT_RESOURCELIMITS_H
#define TESTSUPPORT_RESOURCELIMITS_H

#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace testsupport {

using Resource = decltype(RLIMIT_NOFILE);  // not an int in each C library

/// A limit as setrlimit() takes it.
class ResourceLimit {
public:
    ResourceLimit(Resource resource, rlim_t value) : mResource(resource)
    {
        getrlimit(mResource, &mBefore);
        const rlimit limit{value, mBefore.rlim_max};
        setrlimit(mResource, &limit);
    }
    ~ResourceLimit() { setrlimit(mResource, &mBefore); }
    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    Resource mResource;
    rlimit mBefore{};
};

/// What opens a file or a socket fails.
class NoNewDescriptors {
    // clang's sanitizer looks at a type for the first time through a pipe.
    std::system_error mSeenBefore{EMFILE, std::generic_category()};
    ResourceLimit mLimit{RLIMIT_NOFILE, 0};
};

class IgnoredSignal {
public:
    explicit IgnoredSignal(int number) : mNumber(number), mHandler(std::signal(number, SIG_IGN)) {}
    ~IgnoredSignal() { std::signal(mNumber, mHandler); }
    IgnoredSignal(const IgnoredSignal&) = delete;
    IgnoredSignal& operator=(const IgnoredSignal&) = delete;

private:
    int mNumber;
    void (*mHandler)(int);
};

/// As on a full disk: files can be made, but nothing written into them.
class NoFileGrows {
    IgnoredSignal mSignal{SIGXFSZ};
    ResourceLimit mLimit{RLIMIT_FSIZE, 0};
};

}  // namespace testsupport

#endif
