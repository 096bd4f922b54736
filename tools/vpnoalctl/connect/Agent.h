// SPDX-License-Identifier: Apache-2.0
//
// The agent: brings a connection up through the plug-in, carries its packets, makes the outer connection again when the
// network changes, the gateway goes or the device slept, and restores everything at the end. The tunnel's device and
// configuration stay meanwhile, so that nothing leaves beside the tunnel while it is down.
#ifndef VPNOALCTL_AGENT_H
#define VPNOALCTL_AGENT_H

#include <chrono>
#include <memory>
#include <string>

#include "CommandError.h"
#include "Context.h"
#include "connect/ClientIdentity.h"
#include "connect/GatewayTrust.h"
#include "connect/OuterConnection.h"
#include "connect/PacketCarrier.h"
#include "profile/Profile.h"
#include "tunnel/HeldTunnel.h"

namespace vpnoalctl {

struct AgentOptions {
    std::string command;           ///< a shell command to run while connected; empty: until interrupted
    bool acceptPrompt = false;     ///< where the plug-in says "ask", take it for a yes
    unsigned giveUpSeconds = 300;  ///< how long a lost gateway is tried again
};

class Agent {
public:
    /// The profile must have a gateway. Lists the certificates and chooses one; throws CommandError.
    Agent(Context& context, const Profile& profile, const AgentOptions& options);

    /// The whole connection. Returns the exit code; throws CommandError, with everything restored.
    int run();

private:
    using Clock = Waiter::Clock;

    void open();
    int carry(HeldTunnel& tunnel);
    void handleEvents();
    void lose(std::string reason);
    void tryAgain();
    void retryLater(const CommandError& error);
    void wait(const HeldTunnel& tunnel);

    const Profile& mProfile;
    const AgentOptions& mOptions;
    Signals mSignals;  // before anything starts a thread
    PluginLibrary& mPlugin;
    EventLog mLog;
    AgentEvents mEvents;
    Waiter mWaiter{mSignals, mEvents};
    PluginPtr<KEST_CertPlugin> mCertificates;
    PluginPtr<KEST_SocketPlugin> mSockets;
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

}  // namespace vpnoalctl

#endif
