// SPDX-License-Identifier: Apache-2.0
//
// Packets in a byte stream: each is preceded by its length in two bytes, the high one first. A length of 0 carries
// nothing and is skipped. Plain values without a system call.
#ifndef SAMPLECLIENT_FRAMING_H
#define SAMPLECLIENT_FRAMING_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace sampleclient {

constexpr std::size_t largestPacket = 65535;

/// Appends a packet to a stream. One larger than largestPacket is left out and false returned.
bool appendFrame(std::string& stream, std::string_view packet);

/// Takes a stream apart again, however it was cut into pieces.
class FrameReader {
public:
    void feed(std::string_view bytes);
    /// The next whole packet, valid until the next call of anything; none while its end is missing.
    std::optional<std::string_view> next();

private:
    std::string mBytes;
    std::size_t mTaken = 0;  // bytes at the beginning that have been handed out
};

}  // namespace sampleclient

#endif
