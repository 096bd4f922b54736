// SPDX-License-Identifier: Apache-2.0
//
// A whole connection as an agent makes it: an interface chosen and a socket bound, the gateway judged, ten certificates
// counted and listed, a signature, 50 routes and 20 rules applied and restored; against the bare messages to the kernel
// and bare OpenSSL, and against the tools that people would use instead. Each side has a network of its own.
#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "AgentObjects.h"
#include "CertificateSteps.h"
#include "Comparison.h"
#include "Log.h"
#include "NetLinkHelper.h"
#include "Require.h"
#include "Shell.h"
#include "SocketInterface.h"
#include "SystemInterface.h"
#include "TunDevice.h"
#include "handles/Mnl.h"
#include "handles/UniqueFd.h"
#include "process/Subprocess.h"

namespace {

using bench::require;

constexpr int routeCount = 50;
constexpr int ruleCount = 20;
constexpr char routesFile[] = "/tmp/routes.batch";
constexpr char rulesFile[] = "/tmp/rules.nft";
constexpr char removalFile[] = "/tmp/removal.batch";
constexpr unsigned clientCount = 10;
constexpr char keyFile[] = "/var/ssl/private/rsaclient0.pem";

std::string destination(int number)
{
    return "20." + std::to_string(number / 256) + "." + std::to_string(number % 256) + ".0";
}

/// What the plug-in's platform has sent to the kernel, while it is recorded.
struct Sent {
    int protocol;
    std::string bytes;
};
std::vector<Sent>* spRecorded = nullptr;

int protocolOf(const mnl_socket* socket)
{
    int protocol = 0;
    socklen_t size = sizeof protocol;
    require(getsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_PROTOCOL, &protocol, &size) == 0, "SO_PROTOCOL");
    return protocol;
}

}  // namespace

extern "C" ssize_t __real_mnl_socket_sendto(const mnl_socket* socket, const void* bytes, size_t size);

extern "C" ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* bytes, size_t size)
{
    if (spRecorded != nullptr) {
        spRecorded->push_back({protocolOf(socket), std::string(static_cast<const char*>(bytes), size)});
    }
    return __real_mnl_socket_sendto(socket, bytes, size);
}

namespace {

/// A network with a tunnel in it, and a physical interface with a default route. Every network has the same interfaces
/// under the same numbers.
class Network {
public:
    Network()
    {
        require(unshare(CLONE_NEWNET) == 0, "unshare");
        mHandle.reset(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
        mTunnel = std::make_unique<testsupport::TunDevice>(tunnelInterfaceName);
        mTunnel->setAddress("10.8.0.2", "10.8.0.1", "255.255.255.0");
        testsupport::addVethPair("eth0", "peer0", "10.0.0.2/24");
        testsupport::shell("ip route add default via 10.0.0.1");
    }
    void enter() const { require(setns(mHandle.get(), CLONE_NEWNET) == 0, "setns"); }

private:
    UniqueFd mHandle;
    std::unique_ptr<testsupport::TunDevice> mTunnel;
};

class Agent {
public:
    Agent() : mRoutes(routeCount)
    {
        for (int number = 0; number < routeCount; ++number) {
            testsupport::ListedRoute& route = mRoutes[static_cast<std::size_t>(number)];
            route.SetDestination(strdup(destination(number).c_str()));
            route.SetNetmask(strdup("255.255.255.0"));
            route.SetGateway(strdup("10.8.0.1"));
            route.SetMetric(5);
        }
    }
    void apply()
    {
        mSystem.AddRoute(routeCount, mRoutes.pointers());
        for (int number = 0; number < ruleCount; ++number) {
            mSystem.SetPacketFilterRule("10.0.0.0", "255.0.0.0", 0, destination(number).c_str(), "255.255.255.0", 443,
                                        FILTER_PROTOCOL_TCP, FILTER_DIRECTION_OUT, tunnelInterfaceName,
                                        FILTER_ACTION_ACCEPT);
        }
        require(mSystem.ApplyConfiguration() == PLUGIN_SUCCESS, "ApplyConfiguration");
    }
    void restore() { mSystem.RestoreSystemConfiguration(); }

    void chooseAndBind()
    {
        char name[IFNAMSIZ];
        unsigned size = sizeof name;
        require(mSocket.GetPreferredInterface(size, name, nullptr) == PLUGIN_SUCCESS, "GetPreferredInterface");
        const UniqueFd outer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        require(mSocket.BindToInterface(nullptr, static_cast<unsigned>(outer.get())) == PLUGIN_SUCCESS,
                "BindToInterface");
    }

private:
    testsupport::RouteArray mRoutes;
    SystemInterface mSystem;
    SocketInterface mSocket;
};

/// Sends what was recorded, and waits for the kernel's answer. Nothing is read, checked, written down or rolled back,
/// and the sockets stay open.
class BareKernel {
public:
    BareKernel()
    {
        for (const int protocol : {NETLINK_ROUTE, NETLINK_NETFILTER}) {
            MnlSocketPtr& socket = socketOf(protocol);
            socket.reset(mnl_socket_open2(protocol, SOCK_CLOEXEC));
            require(socket && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) == 0, "netlink");
            int on = 1;
            mnl_socket_setsockopt(socket.get(), NETLINK_CAP_ACK, &on, sizeof on);
        }
    }
    void send(const Sent& sent)
    {
        const MnlSocketPtr& socket = socketOf(sent.protocol);
        require(__real_mnl_socket_sendto(socket.get(), sent.bytes.data(), sent.bytes.size()) >= 0, "send");
        char answer[8192];
        const ssize_t count = mnl_socket_recvfrom(socket.get(), answer, sizeof answer);
        require(count >= static_cast<ssize_t>(sizeof(nlmsghdr) + sizeof(int)), "answer");
        const auto* message = reinterpret_cast<const nlmsghdr*>(answer);
        const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
        require(message->nlmsg_type == NLMSG_ERROR && error->error == 0, "the bare request");
    }

    /// All of it is received, and nothing is read.
    void dumpRoutes()
    {
        struct {
            nlmsghdr header;
            rtmsg route;
        } request{};
        request.header.nlmsg_len = sizeof request;
        request.header.nlmsg_type = RTM_GETROUTE;
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
        request.route.rtm_family = AF_INET;
        require(__real_mnl_socket_sendto(mRoute.get(), &request, sizeof request) >= 0, "send");
        char answer[16384];
        do {
            require(mnl_socket_recvfrom(mRoute.get(), answer, sizeof answer) > 0, "dump");
        } while (reinterpret_cast<const nlmsghdr*>(answer)->nlmsg_type != NLMSG_DONE);
    }

private:
    MnlSocketPtr& socketOf(int protocol) { return protocol == NETLINK_ROUTE ? mRoute : mFilter; }

    MnlSocketPtr mRoute;
    MnlSocketPtr mFilter;
};

/// The messages of apply and restore that change something, in the order in which the kernel needs them.
struct Changes {
    std::vector<Sent> apply;
    std::vector<Sent> restore;
};

std::uint16_t typeOf(const Sent& sent, std::size_t index)
{
    std::size_t offset = 0;
    for (; index > 0; --index)
        offset += NLMSG_ALIGN(reinterpret_cast<const nlmsghdr*>(sent.bytes.data() + offset)->nlmsg_len);
    return offset < sent.bytes.size() ? reinterpret_cast<const nlmsghdr*>(sent.bytes.data() + offset)->nlmsg_type : 0;
}

// Transactions of nftables, and batches of routes.
bool isChange(const Sent& sent)
{
    if (sent.protocol == NETLINK_NETFILTER) return typeOf(sent, 0) == NFNL_MSG_BATCH_BEGIN;
    return typeOf(sent, 0) == RTM_NEWROUTE || typeOf(sent, 0) == RTM_DELROUTE;
}

template <typename Work>
std::vector<Sent> recorded(Work work)
{
    std::vector<Sent> all;
    spRecorded = &all;
    work();
    spRecorded = nullptr;
    std::vector<Sent> changes;
    for (const Sent& sent : all) {
        if (isChange(sent)) changes.push_back(sent);
    }
    require(changes.size() == 2, "recording");
    return changes;
}

// The kernel numbers the tables of a network from 1; a recorded removal is about the first one.
void setTableNumber(Sent& removal, unsigned number)
{
    char* const begin = removal.bytes.data();
    auto* const message =
        reinterpret_cast<nlmsghdr*>(begin + NLMSG_ALIGN(reinterpret_cast<nlmsghdr*>(begin)->nlmsg_len));
    const std::uint32_t bytes = htonl(number);
    std::memcpy(reinterpret_cast<char*>(message) + message->nlmsg_len - sizeof bytes, &bytes, sizeof bytes);
}

// A batch of routes as a program sends it that makes one request after the other, each with its acknowledgement. A
// transaction of nftables cannot be divided.
std::vector<Sent> oneByOne(const std::vector<Sent>& changes)
{
    std::vector<Sent> requests;
    for (const Sent& sent : changes) {
        if (sent.protocol == NETLINK_NETFILTER) {
            requests.push_back(sent);
            continue;
        }
        for (std::size_t offset = 0; offset < sent.bytes.size();) {
            const auto length = reinterpret_cast<const nlmsghdr*>(sent.bytes.data() + offset)->nlmsg_len;
            Sent request{sent.protocol, sent.bytes.substr(offset, length)};
            reinterpret_cast<nlmsghdr*>(request.bytes.data())->nlmsg_flags |= NLM_F_ACK;
            requests.push_back(std::move(request));
            offset += NLMSG_ALIGN(length);
        }
    }
    return requests;
}

/// The same through bare messages.
class BareAgent {
public:
    explicit BareAgent(Changes changes) : mChanges(std::move(changes)) {}

    void apply()
    {
        for (const Sent& sent : mChanges.apply)
            mKernel.send(sent);
        ++mTables;
    }
    void prepareRestore()
    {
        for (Sent& sent : mChanges.restore) {
            if (sent.protocol == NETLINK_NETFILTER) setTableNumber(sent, mTables);
        }
    }
    void restore()
    {
        for (const Sent& sent : mChanges.restore)
            mKernel.send(sent);
    }
    /// Two dumps, because either of the two operations looks at the routes as they are now.
    void chooseAndBind()
    {
        const UniqueFd outer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ifreq device{};
        for (int i = 0; i < 2; ++i) {
            mKernel.dumpRoutes();
            require(if_indextoname(mPhysical, device.ifr_name) != nullptr, "if_indextoname");
        }
        require(setsockopt(outer.get(), SOL_SOCKET, SO_BINDTODEVICE, &device, 32) == 0, "SO_BINDTODEVICE");
        require(ioctl(outer.get(), SIOCGIFADDR, &device) == 0, "SIOCGIFADDR");
        require(bind(outer.get(), &device.ifr_addr, sizeof device.ifr_addr) == 0, "bind");
    }

private:
    Changes mChanges;
    BareKernel mKernel;
    unsigned mPhysical = if_nametoindex("eth0");
    unsigned mTables = 0;
};

void writeBatches()
{
    std::ofstream routes(routesFile);
    std::ofstream removal(removalFile);
    for (int number = 0; number < routeCount; ++number) {
        const std::string route = destination(number) + "/24 via 10.8.0.1 dev norvatun0 metric 5\n";
        routes << "route add " << route;
        removal << "route del " << route;
    }
    std::ofstream rules(rulesFile);
    rules << "table inet tools {\nchain NORVA {\n";
    for (int number = 0; number < ruleCount; ++number) {
        rules << "oifname norvatun0 ip saddr 10.0.0.0/8 ip daddr " << destination(number)
              << "/24 meta l4proto tcp th dport 443 accept\n";
    }
    rules << "}\n";
    for (const char* hook : {"input", "output", "forward"})
        rules << "chain " << hook << " { type filter hook " << hook << " priority 0; jump NORVA; }\n";
    rules << "}\n";
}

void run(const std::vector<std::string>& command)
{
    require(wfoal::runSubprocess(command, {}, std::chrono::minutes(1)).succeeded(), command[0].c_str());
}

void applyByTools()
{
    run({"ip", "-batch", routesFile});
    run({"nft", "-f", rulesFile});
}

void restoreByTools()
{
    run({"ip", "-batch", removalFile});
    run({"nft", "delete", "table", "inet", "tools"});
}

/// The certificates of a connection.
struct Certificates {
    Certificates()
    {
        std::filesystem::create_directories("/var/ssl/trustedcerts");
        testsupport::installTrusted(chain.root);
        bench::installOthers(1, 10);
        bench::installClients(client, clientCount);
        testsupport::writeFile("/tmp/intermediate.pem", chain.intermediate.pem());
        testsupport::writeFile("/tmp/server.pem", chain.server.pem());
        testsupport::writeFile("/tmp/hash", std::string(36, 'Z'));
    }
    void useByPlugin()
    {
        bench::judgeByPlugin(store, chain);
        bench::countByPlugin(store, clientCount);
        bench::listByPlugin(store, clientCount);
        signer.signBy(element);
    }
    void useBarely()
    {
        bench::judgeBarely(chain);
        bench::listBarely(clientCount);
        bench::listBarely(clientCount);
        signer.signBarely(keyFile);
    }
    static void useByTools()
    {
        run({"openssl", "verify", "-purpose", "sslserver", "-CApath", "/var/ssl/trustedcerts", "-untrusted",
             "/tmp/intermediate.pem", "/tmp/server.pem"});
        for (unsigned i = 0; i < 2 * clientCount; ++i) {
            run({"openssl", "x509", "-noout", "-subject", "-in",
                 bench::certificates + "client" + std::to_string(i % clientCount) + ".pem"});
        }
        run({"openssl", "pkeyutl", "-sign", "-inkey", keyFile, "-in", "/tmp/hash", "-out", "/tmp/signature"});
    }

    bench::Chain chain;
    testsupport::Identity client = testsupport::makeIdentity({"client", 5});
    CertificateInterface store;
    CertElement element{client.certificate.get(), keyFile};
    bench::Signer signer;
};

/// `work` in a network, and what has to be done there before and after without being counted.
template <typename Before, typename Work, typename After>
bench::Measured in(const Network& network, Before before, Work work, After after)
{
    return [&network, before, work, after]() mutable {
        network.enter();
        before();
        const double seconds = bench::secondsOf(work);
        after();
        return seconds;
    };
}

}  // namespace

int main()
{
    if (vpnWfOalLogCxt != nullptr) vpnWfOalLogCxt->level = wfoal::LogError;
    setenv("VKLOG_LEVEL", "3", 1);
    const Network ours;
    // It was made in another network. The old socket goes first: there is one port id.
    sNlHelper = NetLinkHelper(UniqueFd());
    sNlHelper = NetLinkHelper(NETLINK_ROUTE, 0);
    Agent agent;
    Changes changes;
    changes.apply = recorded([&] { agent.apply(); });
    changes.restore = recorded([&] { agent.restore(); });
    const Network peers;
    BareAgent bare({oneByOne(changes.apply), oneByOne(changes.restore)});
    const Network kernels;
    BareAgent kernel(std::move(changes));
    const Network tools;
    writeBatches();

    const auto nothing = [] {};
    const auto apply = in(
        ours, nothing, [&] { agent.apply(); }, [&] { agent.restore(); });
    const auto restore = in(
        ours, [&] { agent.apply(); }, [&] { agent.restore(); }, nothing);
    const auto applyOf = [&](const Network& network, BareAgent& peer) {
        return in(
            network, nothing, [&peer] { peer.apply(); },
            [&peer] {
                peer.prepareRestore();
                peer.restore();
            });
    };
    const auto restoreOf = [&](const Network& network, BareAgent& peer) {
        return in(
            network,
            [&peer] {
                peer.apply();
                peer.prepareRestore();
            },
            [&peer] { peer.restore(); }, nothing);
    };
    const int rounds = 101;
    bench::Table table("A connection: 50 routes, 20 rules");
    table.compare("apply, to the bare requests", 1.4, apply, applyOf(peers, bare), rounds);
    table.compare("restore, to the bare requests", 1.3, restore, restoreOf(peers, bare), rounds);
    // What the kernel takes when it gets everything in one call for each protocol, as it gets it from ours.
    table.compare("apply (kernel's share), to our messages alone", bench::noLimit, apply, applyOf(kernels, kernel),
                  rounds);
    table.compare("restore (kernel's share), to our messages alone", bench::noLimit, restore,
                  restoreOf(kernels, kernel), rounds);
    table.compare("choose and bind, to the bare calls", 1.5,
                  in(
                      ours, nothing, [&] { agent.chooseAndBind(); }, nothing),
                  in(
                      peers, nothing, [&] { bare.chooseAndBind(); }, nothing),
                  rounds);
    Certificates certificates;
    const auto whole = in(
        ours, nothing,
        [&] {
            agent.chooseAndBind();
            certificates.useByPlugin();
            agent.apply();
        },
        [&] { agent.restore(); });
    table.compare("a warm connection, to the bare steps", 1.1, whole,
                  in(
                      peers, nothing,
                      [&] {
                          bare.chooseAndBind();
                          certificates.useBarely();
                          bare.apply();
                      },
                      [&] {
                          bare.prepareRestore();
                          bare.restore();
                      }),
                  rounds);
    table.compare("a warm connection, to ip, nft and openssl", 0.02, whole,
                  in(
                      tools, nothing,
                      [] {
                          run({"ip", "route", "show", "default"});
                          Certificates::useByTools();
                          applyByTools();
                      },
                      restoreByTools),
                  11);
    table.compare("apply, to ip -batch and nft -f", 0.5, apply, in(tools, nothing, applyByTools, restoreByTools), 11);
    table.compare("restore, to ip -batch and nft delete", 0.5, restore,
                  in(tools, applyByTools, restoreByTools, nothing), 11);
    return table.result();
}
