// SPDX-License-Identifier: Apache-2.0
//
// The agent: brings a connection up through the plug-in, carries its packets, makes the outer connection again when the
// network changes, the gateway goes or the device slept, and restores everything at the end. The tunnel's device and
// configuration stay meanwhile, so that nothing leaves beside the tunnel while it is down.
#ifndef SAMPLECLIENT_AGENT_H
#define SAMPLECLIENT_AGENT_H

#include <chrono>
#include <memory>
#include <string>

#include "CommandError.h"
#include "Context.h"
#include "client/ClientIdentity.h"
#include "client/GatewayTrust.h"
#include "client/OuterConnection.h"
#include "client/PacketCarrier.h"
#include "profile/Profile.h"
#include "tunnel/HeldTunnel.h"

namespace sampleclient {

struct AgentOptions {
    std::string command;           ///< a shell command to run while connected; empty: until interrupted
    bool acceptPrompt = false;     ///< where the plug-in says "ask", take it for a yes
    unsigned giveUpSeconds = 300;  ///< how long a lost gateway is tried again
};

class Agent {
public:
    /// What it gets must outlive it. Lists the certificates and chooses one; throws CommandError.
    Agent(vpnoalctl::Context& context, const vpnoalctl::Profile& profile, const GatewaySettings& gateway,
          const AgentOptions& options);

    /// The whole connection. Returns the exit code; throws CommandError, with everything restored.
    int run();

private:
    using Clock = Waiter::Clock;

    void open();
    int carry(vpnoalctl::HeldTunnel& tunnel);
    void handleEvents();
    void lose(std::string reason);
    void tryAgain();
    void retryLater(const vpnoalctl::CommandError& error);
    void wait(const vpnoalctl::HeldTunnel& tunnel);

    const vpnoalctl::Profile& mProfile;
    const AgentOptions& mOptions;
    vpnoalctl::Signals mSignals;  // before anything starts a thread
    vpnoalctl::PluginLibrary& mPlugin;
    EventLog mLog;
    vpnoalctl::AgentEvents mEvents;
    Waiter mWaiter{mSignals, mEvents};
    vpnoalctl::PluginPtr<KEST_CertPlugin> mCertificates;
    vpnoalctl::PluginPtr<KEST_SocketPlugin> mSockets;
    ClientIdentity mIdentity;
    GatewayTrust mTrust;
    ClientTls mTls;
    OuterConnection mOuter;
    std::unique_ptr<TlsStream> mStream;
    std::unique_ptr<PacketCarrier> mCarrier;
    bool mAsleep = false;
    std::chrono::milliseconds mPause{0};
    Clock::time_point mNextAttempt{};
    Clock::time_point mGiveUp{};
};

}  // namespace sampleclient

#endif
