// SPDX-License-Identifier: Apache-2.0
#include "client/Framing.h"

namespace sampleclient {

namespace {

constexpr std::size_t headerSize = 2;

std::size_t lengthAt(std::string_view bytes)
{
    return static_cast<std::size_t>(static_cast<unsigned char>(bytes[0])) << 8 | static_cast<unsigned char>(bytes[1]);
}

}  // namespace

bool appendFrame(std::string& stream, std::string_view packet)
{
    if (packet.size() > largestPacket) return false;
    stream += static_cast<char>(packet.size() >> 8);
    stream += static_cast<char>(packet.size() & 0xff);
    stream += packet;
    return true;
}

void FrameReader::feed(std::string_view bytes)
{
    mBytes.erase(0, mTaken);
    mTaken = 0;
    mBytes += bytes;
}

std::optional<std::string_view> FrameReader::next()
{
    for (;;) {
        const std::string_view rest = std::string_view(mBytes).substr(mTaken);
        if (rest.size() < headerSize) return std::nullopt;
        const std::size_t length = lengthAt(rest);
        if (rest.size() - headerSize < length) return std::nullopt;
        mTaken += headerSize + length;
        if (length != 0) return rest.substr(headerSize, length);
    }
}

}  // namespace sampleclient
