// SPDX-License-Identifier: Apache-2.0
//
// IPv4 addresses as dotted text. A table of half a million routes has a million and a half addresses, and inet_ntop()
// costs several times as much.
#ifndef WFOAL_DOTTEDADDRESS_H
#define WFOAL_DOTTEDADDRESS_H

#include <netinet/in.h>

#include <cstdlib>
#include <cstring>

namespace wfoal {

class DottedAddress {
public:
    explicit DottedAddress(in_addr address)
    {
        unsigned char bytes[4];
        std::memcpy(bytes, &address, sizeof bytes);
        char* end = mText;
        for (const unsigned char byte : bytes) {
            if (end != mText) *end++ = '.';
            end = append(end, byte);
        }
        *end = '\0';
        mLength = static_cast<std::size_t>(end - mText);
    }

    const char* text() const { return mText; }

    /// A copy from malloc(), null when there is no memory; the caller frees it.
    char* copy() const
    {
        auto* text = static_cast<char*>(std::malloc(mLength + 1));
        if (text != nullptr) std::memcpy(text, mText, mLength + 1);
        return text;
    }

private:
    static char* append(char* end, unsigned value)
    {
        if (value >= 100) *end++ = static_cast<char>('0' + value / 100);
        if (value >= 10) *end++ = static_cast<char>('0' + value / 10 % 10);
        *end++ = static_cast<char>('0' + value % 10);
        return end;
    }

    char mText[INET_ADDRSTRLEN];
    std::size_t mLength;
};

}  // namespace wfoal

#endif
