// SPDX-License-Identifier: Apache-2.0
//
// Moves packets between the tunnel's device and a TLS stream, in frames, as far as both are ready. Without a stream the
// device's packets stay in its queue, where the kernel drops what is too much.
#ifndef SAMPLECLIENT_PACKETCARRIER_H
#define SAMPLECLIENT_PACKETCARRIER_H

#include <string>

#include "client/Framing.h"
#include "client/TlsStream.h"

namespace sampleclient {

class PacketCarrier {
public:
    /// Makes the descriptor of the device, which is not owned, non-blocking.
    explicit PacketCarrier(int device);

    /// The stream is not owned; null removes it. Data in flight in the former stream is lost.
    void attach(TlsStream* stream);

    /// The events to poll() the device and the stream for; 0 for none.
    short deviceEvents() const;
    short streamEvents() const;
    /// Moves what can be moved. False when the stream is closed.
    bool carry();

private:
    bool receive();
    bool send();
    bool flush();

    int mDevice;
    TlsStream* mStream = nullptr;
    FrameReader mReader;
    std::string mOutgoing;
};

}  // namespace sampleclient

#endif
