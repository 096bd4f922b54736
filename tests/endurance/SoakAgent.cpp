// SPDX-License-Identifier: Apache-2.0
#include "SoakAgent.h"

#include <fcntl.h>
#include <glib.h>
#include <malloc.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "AgentObjects.h"
#include "CertificateAuthority.h"
#include "KeptRecords.h"
#include "LoadedPlugin.h"
#include "handles/UniqueFd.h"
#include "kest/StoragePlugin.h"

namespace endurance {

namespace {

using namespace testsupport;

constexpr unsigned routesAtMost = 40;

class CountingCallback : public KEST_SystemPluginCB {
public:
    explicit CountingCallback(std::atomic<long>& events) : mEvents(events) {}
    void OnPowerSuspended() override { ++mEvents; }
    void OnPowerResume() override { ++mEvents; }
    void OnConnectionChange(std::uint32_t) override { ++mEvents; }
    void OnConfigurationChange() override {}

private:
    std::atomic<long>& mEvents;
};

class RouteToAdd : public ListedRoute {
public:
    explicit RouteToAdd(const std::string& destination)
    {
        SetDestination(strdup(destination.c_str()));
        SetNetmask(strdup("255.255.0.0"));
        SetGateway(strdup("10.8.0.1"));
        SetInterface(strdup("norvatun0"));
    }
};

class SoakAgent {
public:
    SoakAgent(int number, unsigned seed, SoakShared& shared)
        : mShared(shared),
          mReport(shared.reports[number]),
          mFile("file-" + std::to_string(number)),
          mRandom(seed + static_cast<unsigned>(number)),
          mCallback(mReport.events)
    {
        mpSystem->SetSystemPluginCB(&mCallback);
    }

    void run()
    {
        // What is made at the first need is there before anything is measured.
        for (int round = 0; round < 5; ++round) {
            for (const Share& share : shares)
                (this->*share.operation)();
        }
        while (!mShared.ends) {
            if (mShared.pauses) pause();
            long left = mShared.left;
            if (left <= 0) {
                usleep(1000);
                continue;
            }
            if (!mShared.left.compare_exchange_weak(left, left - 1)) continue;
            ++mReport.operations;
            operate(number(0, 9999));
        }
        mpSystem->RestoreSystemConfiguration();
        mPlugin.dispose(mpCertificates);
        mPlugin.dispose(mpStorage);
        mPlugin.dispose(mpSocket);
        mPlugin.dispose(mpSystem);
    }

private:
    int number(int least, int most) { return std::uniform_int_distribution<int>(least, most)(mRandom); }

    void expect(bool isTrue, const char* what)
    {
        if (isTrue) return;
        if (++mReport.failures == 1) std::snprintf(mReport.firstFailure, sizeof mReport.firstFailure, "%s", what);
    }

    struct Share {
        int below;  // of ten thousand lots
        void (SoakAgent::*operation)();
    };

    static const Share shares[13];

    void operate(int lot)
    {
        for (const Share& share : shares) {
            if (lot < share.below) return (this->*share.operation)();
        }
    }

    bool apply()
    {
        RouteToAdd route("10." + std::to_string(number(20, 60)) + ".0.0");
        KEST_SystemPluginRoute* routes[] = {&route};
        const char* servers[] = {"10.8.0.53", nullptr};
        mpSystem->SetDNSServers(servers);
        mpSystem->SetDNSDomain("corp.example");
        mpSystem->AddRoute(1, routes);
        mpSystem->SetPacketFilterRule(nullptr, nullptr, 0, "10.0.0.0", "255.0.0.0", 53, FILTER_PROTOCOL_UDP,
                                      FILTER_DIRECTION_OUT, "norvatun0", FILTER_ACTION_ACCEPT);
        ++mReport.keptDescriptors;
        // The other agent may own the tunnel, and systemd-resolved may be restarting.
        const bool isApplied = mpSystem->ApplyConfiguration() == PLUGIN_SUCCESS;
        ++(isApplied ? mReport.applied : mReport.refused);
        return isApplied;
    }

    void applySome() { apply(); }

    void restore() { expect(mpSystem->RestoreSystemConfiguration() == PLUGIN_SUCCESS, "a restore fails"); }

    void import()
    {
        bool first = false, second = false;
        ClientCertHandle* handle = nullptr;
        // The bus or the certificate manager may be restarting.
        const PluginResult result = mpCertificates->ImportPKCS12(static_cast<unsigned>(mBundle.size()), mBundle.data(),
                                                                 "secret", "", first, second, handle);
        expect((result == PLUGIN_SUCCESS) == (handle != nullptr), "an import without a handle, or with one too much");
        mpCertificates->DisposeClientCertHandle(handle);
    }

    void verify()
    {
        const bool isGood = number(0, 1) == 0;
        const std::vector<unsigned char>& server = isGood ? mGood : mBad;
        bool promptUser = false;
        const PluginResult result = mpCertificates->VerifyServerCertificate(
            server.data(), static_cast<unsigned>(server.size()), "vpn.example", promptUser);
        expect((result == PLUGIN_SUCCESS && !promptUser) == isGood, "another verdict");
    }

    void sign()
    {
        unsigned count = 1;
        ClientCertHandle* handle = nullptr;
        if (mpCertificates->EnumerateClientCerts(count, &handle) != PLUGIN_SUCCESS || handle == nullptr) {
            return expect(false, "the client certificate is not listed");
        }
        const unsigned char hash[36] = {};
        unsigned char signature[256];
        unsigned char* place = signature;
        unsigned length = sizeof signature;
        expect(handle->SignSSL(hash, sizeof hash, place, length, "") == PLUGIN_SUCCESS, "no signature");
        mpCertificates->DisposeClientCertHandle(handle);
    }

    void makeAndDispose()
    {
        mPlugin.dispose(mpSocket);
        mpSocket = mPlugin.createSocket();
        expect(mpSocket != nullptr, "no socket object");
    }

    void listRoutes()
    {
        RouteArray routes(routesAtMost);
        unsigned count = routesAtMost;
        expect(mpSystem->EnumerateRoutes(count, routes.pointers()) == PLUGIN_SUCCESS, "routes are not listed");
    }

    void choose()
    {
        const UniqueFd outer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        char name[16] = {};
        unsigned size = sizeof name;
        expect(mpSocket->GetPreferredInterface(size, name, nullptr) == PLUGIN_SUCCESS, "no interface is preferred");
        // Fails while the interface is away.
        mpSocket->BindToInterface(nullptr, static_cast<unsigned>(outer.get()));
    }

    void listInterfaces()
    {
        InterfaceArray interfaces(20);
        unsigned count = 20;
        mpSystem->EnumerateNetworkInterfaces(count, interfaces.pointers());
    }

    // On an object of its own, which is disposed of without an apply.
    void collectAndForget()
    {
        const char* domains[] = {"a.example", "b.example", nullptr};
        expect(
            mpSystem->SetTunnelParams("norvatun0", "", "10.8.0.2", "255.255.255.0", "", "", 1400) == PLUGIN_SUCCESS &&
                mpSystem->SetProxy(PROXY_TYPE_NONE, "") == PLUGIN_SUCCESS &&
                mpSystem->SetProxyExceptionList(domains) == PLUGIN_SUCCESS &&
                mpSystem->ClearProxySettings() == PLUGIN_SUCCESS,
            "a setter fails");
    }

    void save()
    {
        mContent.assign(static_cast<std::size_t>(number(0, 5000)), static_cast<char>(number('a', 'z')));
        expect(
            mpStorage->SaveFile(LOCATION_MAIN, mFile.c_str(), reinterpret_cast<const unsigned char*>(mContent.data()),
                                static_cast<unsigned>(mContent.size())) == PLUGIN_SUCCESS,
            "a file is not saved");
        mHasFile = true;
    }

    void load()
    {
        if (!mHasFile) return save();
        unsigned char buffer[6000];
        unsigned size = sizeof buffer;
        const PluginResult result = mpStorage->LoadFile(LOCATION_MAIN, mFile.c_str(), buffer, size);
        const bool isSame =
            mContent.empty() || (size == mContent.size() && std::memcmp(buffer, mContent.data(), mContent.size()) == 0);
        expect(result == PLUGIN_SUCCESS && isSame, "another content than was saved");
    }

    void mapAndList()
    {
        if (!mHasFile) return save();
        KEST_FileInformation information{};
        expect(mpStorage->SimpleStat(LOCATION_MAIN, mFile.c_str(), information) == PLUGIN_SUCCESS &&
                   information.size == static_cast<std::int64_t>(mContent.size()),
               "another size than was saved");
        void* address = nullptr;
        unsigned size = 0;
        if (mContent.empty()) return;
        ++mReport.keptDescriptors;
        expect(mpStorage->SimpleMapFile(LOCATION_MAIN, mFile.c_str(), address, size) == PLUGIN_SUCCESS &&
                   std::memcmp(address, mContent.data(), mContent.size()) == 0 &&
                   mpStorage->SimpleUnmapFile(address) == PLUGIN_SUCCESS,
               "a file is not mapped");
    }

    // With nothing installed, until the run goes on. DNS settings that were removed while systemd-resolved was down
    // leave a thread, which ends with the next ones. The other agent may own the tunnel for a moment.
    void pause()
    {
        for (int attempt = 0; attempt < 500 && !apply(); ++attempt)
            usleep(10'000);
        restore();
        choose();  // an agent that is bound to the access network hears when it goes
        mReport.bytes = static_cast<long>(mallinfo2().uordblks);
        mReport.keptBytes = keptRecordBytes();
        mReport.isPaused = true;
        while (mShared.pauses)
            usleep(1000);
        mReport.isPaused = false;
    }

    SoakShared& mShared;
    SoakReport& mReport;
    const std::string mFile;
    std::mt19937 mRandom;
    LoadedPlugin mPlugin;
    CountingCallback mCallback;
    KEST_SystemPlugin* const mpSystem = mPlugin.createSystem();
    KEST_SocketPlugin* mpSocket = mPlugin.createSocket();
    KEST_CertPlugin* const mpCertificates = mPlugin.createCertificates();
    KEST_StoragePlugin* const mpStorage = static_cast<KEST_StoragePlugin*>(mPlugin.create(KEST_STORAGE_INTERFACE));
    const Identity mRoot = makeIdentity({"Root", 1, true});
    const std::vector<unsigned char> mGood = makeIdentity({"vpn.example", 2}, &mRoot).der();
    const Identity mStranger = makeIdentity({"Stranger", 6, true});
    const std::vector<unsigned char> mBad = makeIdentity({"vpn.example", 3}, &mStranger).der();
    const std::vector<unsigned char> mBundle = makeIdentity({"client", 4}).pkcs12("secret");
    std::string mContent;
    bool mHasFile = false;
};

constexpr SoakAgent::Share SoakAgent::shares[] = {
    {60, &SoakAgent::applySome},
    {120, &SoakAgent::restore},
    {125, &SoakAgent::import},
    {225, &SoakAgent::verify},
    {300, &SoakAgent::sign},
    {340, &SoakAgent::makeAndDispose},
    {1000, &SoakAgent::listRoutes},
    {1700, &SoakAgent::choose},
    {2200, &SoakAgent::listInterfaces},
    {4000, &SoakAgent::collectAndForget},
    {6000, &SoakAgent::save},
    {9900, &SoakAgent::load},
    {10'000, &SoakAgent::mapAndList},
};

}  // namespace

pid_t startSoakAgent(int number, unsigned seed, SoakShared& shared)
{
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit descriptors{1 << 20, 1 << 20};
    setrlimit(RLIMIT_NOFILE, &descriptors);
    const std::string log = "/tmp/agent-" + std::to_string(number) + ".log";
    dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
    try {
        SoakAgent(number, seed, shared).run();
    } catch (const std::exception& error) {
        std::snprintf(shared.reports[number].firstFailure, sizeof shared.reports[number].firstFailure, "%s",
                      error.what());
        ++shared.reports[number].failures;
    }
    _exit(0);
}

}  // namespace endurance
