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
            end = append(end, byte);
            *end++ = '.';
        }
        end[-1] = '\0';
    }

    const char* text() const { return mText; }

    /// A copy from malloc(), null when there is no memory; the caller frees it. All of the array is copied: a constant
    /// size takes one instruction.
    char* copy() const
    {
        void* text = std::malloc(sizeof mText);
        if (text != nullptr) std::memcpy(text, mText, sizeof mText);
        return static_cast<char*>(text);
    }

private:
    // Quotients of a byte by multiplying: code that is optimised for size would divide, which takes many times as long.
    static char* append(char* end, unsigned byte)
    {
        const unsigned hundreds = (byte * 41) >> 12;
        const unsigned rest = byte - 100 * hundreds;
        const unsigned tens = (rest * 103) >> 10;
        if (hundreds != 0) *end++ = static_cast<char>('0' + hundreds);
        if (byte >= 10) *end++ = static_cast<char>('0' + tens);
        *end++ = static_cast<char>('0' + rest - 10 * tens);
        return end;
    }

    char mText[INET_ADDRSTRLEN] = {};
};

}  // namespace wfoal

#endif
