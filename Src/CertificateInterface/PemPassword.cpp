// SPDX-License-Identifier: Apache-2.0
#include "PemPassword.h"

#include <cstring>

namespace wfoal {

namespace {

constexpr int failed = -1;

}  // namespace

int noPassword(char*, int, int, void*)
{
    return failed;
}

int givenPassword(char* buffer, int size, int, void* context)
{
    const auto* password = static_cast<const char*>(context);
    if (password == nullptr || size < 0) return failed;
    const std::size_t length = std::strlen(password);
    if (length > static_cast<std::size_t>(size)) return failed;
    std::memcpy(buffer, password, length);
    return static_cast<int>(length);
}

}  // namespace wfoal
