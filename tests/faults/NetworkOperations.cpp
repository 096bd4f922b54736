// SPDX-License-Identifier: Apache-2.0
//
// Requests to the network-configuration library, and the log, without the plug-in.
#include "KernelState.h"
#include "VkLogLib.h"
#include "VkNetConfigLib.h"
#include "World.h"

namespace faults {

namespace {

constexpr char first[] = R"({"domainsOnIfDns":["corp.example"],"ifName":"vpn0","ipv4":{"ip":"0x0300080a",
    "netmask":"0x00ffffff","dns":["0x0100080a"],"gateway":"0x0100080a","additionalIfRoutes":[
    {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5},
    {"ip":"172.16.0.0","netmask":"255.240.0.0","gateway":"10.8.0.1","metric":0}]}})";
constexpr char second[] = R"({"domainsOnIfDns":["other.example"],"ifName":"vpn0","ipv4":{"dns":["0x0200080a"],
    "additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":7}]}})";
constexpr char filter[] = R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[
    {"operation":"append","protocol":"ICMP","source":"10.1.2.3/255.255.255.255","jumpTo":"DROP"},
    {"operation":"append","protocol":"TCP","destinationPort":22,"interfaceName":"vpn0","interfaceDirection":"in",
     "jumpTo":"DROP"}]})";
constexpr char otherFilter[] = R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[
    {"operation":"append","protocol":"UDP","jumpTo":"ACCEPT"}]})";
constexpr char noFilter[] = R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";

/// One request after another that is installed already, or after none.
class Request : public Operation {
protected:
    using Make = int (*)(const char*);

    struct Step {
        Make make = nullptr;
        const char* argument = nullptr;
        int run() const { return make == nullptr ? 0 : make(argument); }
    };

    /// What a request that succeeds may leave in the undo log, to be removed later: DNS settings while systemd-resolved
    /// does not answer, or a guard that is no longer wanted. Entry: a request that is refused may leave its entry
    /// there, which the next request removes.
    enum class Rest { None, Dns, Guard, Entry };

    Request(Step before, Step request, Rest rest = Rest::None) : mBefore(before), mRequest(request), mRest(rest)
    {
        testsupport::makeInterface();
        mNothing = now();
    }

    void begin() override
    {
        expect(mBefore.run() == 0, "what comes before is refused");
        if (mStart.links.empty()) mStart = now();
    }
    int act() override { return mRequest.run() == 0 ? 0 : 1; }
    void judge(int result, const Disturbance& disturbance) override
    {
        const NetworkState state = now();
        if (result == 0) {
            if (mDone.links.empty()) mDone = state;
            expect(mDone != mStart, "the request changes nothing");
            expect(state == mDone || isDoneButRest(state), "done, but not all of it: " + state.differenceTo(mDone));
            return;
        }
        const bool isPending =
            !state.undoLog.empty() && (disturbance.isForEver || mRest == Rest::Dns || mRest == Rest::Entry);
        expect(isPending || state == mStart, "refused, but changed: " + state.differenceTo(mStart));
    }
    void end() override
    {
        const bool isRemoved = CmDelInterfaceCfg("vpn0") == 0 && VkFirewallFullCtrl(noFilter) == 0;
        const NetworkState state = now();
        expect(isRemoved && state == mNothing, "removed, but not as before: " + state.differenceTo(mNothing));
    }

private:
    bool isDoneButRest(const NetworkState& state) const
    {
        if (mRest == Rest::None || mRest == Rest::Entry || state.undoLog.empty() || state.links != mDone.links)
            return false;
        return mRest == Rest::Dns ? state.filter == mDone.filter : state.dns == mDone.dns;
    }

    NetworkState now() const { return NetworkState::now(mWorld.hasResolved()); }

    DnsWorld mWorld;
    Step mBefore;
    Step mRequest;
    Rest mRest;
    NetworkState mNothing;
    NetworkState mStart;
    NetworkState mDone;
};

struct Add : Request {
    Add() : Request({}, {CmAddInterfaceCfg2, first}) {}
};
struct Replace : Request {
    Replace() : Request({CmAddInterfaceCfg2, first}, {CmAddInterfaceCfg2, second}, Rest::Guard) {}
};
struct Remove : Request {
    Remove() : Request({CmAddInterfaceCfg2, first}, {CmDelInterfaceCfg, "vpn0"}, Rest::Dns) {}
};
struct MakeFilter : Request {
    MakeFilter() : Request({}, {VkFirewallFullCtrl, filter}) {}
};
struct ReplaceFilter : Request {
    ReplaceFilter() : Request({VkFirewallFullCtrl, filter}, {VkFirewallFullCtrl, otherFilter}) {}
};
struct RemoveFilter : Request {
    RemoveFilter() : Request({VkFirewallFullCtrl, filter}, {VkFirewallFullCtrl, noFilter}, Rest::Entry) {}
};

class GetContext : public Operation {
    void begin() override { mName = "context-" + std::to_string(++mCount); }
    int act() override
    {
        VkLogContext* context = nullptr;
        const int error = VkLogGetContext(mName.c_str(), &context);
        mIsConsistent = (error == 0) == (context != nullptr);
        return error == 0 ? 0 : 1;
    }
    void judge(int, const Disturbance&) override { expect(mIsConsistent, "the context is not what the result says"); }
    std::string mName;
    int mCount = 0;
    bool mIsConsistent = false;
};

class Print : public Operation {
public:
    Print() { VkLogGetContext("sweep", &mpContext); }

private:
    int act() override
    {
        VkLogPrint(mpContext, 3, "a message of %d with %s", 7, mLong.c_str());
        return 0;
    }
    const std::string mLong = std::string(3000, 'm');
    VkLogContext* mpContext = nullptr;
};

}  // namespace

Entries networkOperations()
{
    return {
        {"CmAddInterfaceCfg2", make<Add>, 0, {0, 1}},
        {"CmAddInterfaceCfg2-replacing", make<Replace>, 0, {0, 1}},
        {"CmDelInterfaceCfg", make<Remove>, 0, {0, 1}},
        {"VkFirewallFullCtrl", make<MakeFilter>, 0, {0, 1}},
        {"VkFirewallFullCtrl-replacing", make<ReplaceFilter>, 0, {0, 1}},
        {"VkFirewallFullCtrl-removing", make<RemoveFilter>, 0, {0, 1}},
        {"VkLogGetContext", make<GetContext>, 0, {0, 1}},
        {"VkLogPrint", make<Print>, 0, {0}},
    };
}

}  // namespace faults
