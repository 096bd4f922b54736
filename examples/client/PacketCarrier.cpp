// SPDX-License-Identifier: Apache-2.0
#include "client/PacketCarrier.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>

namespace sampleclient {

namespace {

// More is not taken from the device while the stream does not take it.
constexpr std::size_t mostOutgoing = std::size_t{256} << 10;

}  // namespace

PacketCarrier::PacketCarrier(int device) : mDevice(device)
{
    fcntl(mDevice, F_SETFL, fcntl(mDevice, F_GETFL) | O_NONBLOCK);
}

void PacketCarrier::attach(TlsStream* stream)
{
    mStream = stream;
    mReader = {};
    mOutgoing.clear();
}

short PacketCarrier::deviceEvents() const
{
    return mStream != nullptr && mOutgoing.size() < mostOutgoing ? POLLIN : 0;
}

short PacketCarrier::streamEvents() const
{
    if (mStream == nullptr) return 0;
    return static_cast<short>(POLLIN | (mOutgoing.empty() ? 0 : POLLOUT));
}

bool PacketCarrier::carry()
{
    return mStream == nullptr || (receive() && send());
}

bool PacketCarrier::receive()
{
    std::array<char, 16384> bytes;  // as much as a TLS record holds
    std::size_t count = 0;
    TlsStream::Result result = TlsStream::Result::Done;
    while ((result = mStream->read(bytes.data(), bytes.size(), count)) == TlsStream::Result::Done) {
        mReader.feed({bytes.data(), count});
        while (const auto packet = mReader.next()) {
            // The kernel refuses what is no IP packet, and drops what is too much.
            static_cast<void>(!write(mDevice, packet->data(), packet->size()));
        }
    }
    return result != TlsStream::Result::Closed;
}

bool PacketCarrier::send()
{
    std::array<char, largestPacket> packet;
    while (mOutgoing.size() < mostOutgoing) {
        const ssize_t size = ::read(mDevice, packet.data(), packet.size());
        if (size <= 0) break;
        appendFrame(mOutgoing, {packet.data(), static_cast<std::size_t>(size)});
    }
    return flush();
}

bool PacketCarrier::flush()
{
    std::size_t sent = 0;
    TlsStream::Result result = TlsStream::Result::Done;
    while (sent < mOutgoing.size() && result == TlsStream::Result::Done) {
        std::size_t count = 0;
        result = mStream->write(mOutgoing.data() + sent, mOutgoing.size() - sent, count);
        if (result == TlsStream::Result::Done) sent += count;
    }
    mOutgoing.erase(0, sent);
    return result != TlsStream::Result::Closed;
}

}  // namespace sampleclient
