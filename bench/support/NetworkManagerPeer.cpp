// SPDX-License-Identifier: Apache-2.0
#include "NetworkManagerPeer.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "Daemons.h"
#include "Isolation.h"
#include "KernelEvents.h"
#include "Require.h"
#include "Shell.h"
#include "handles/SdBus.h"

namespace bench {

namespace {

using Signal = NetworkManagerPeer::Signal;

constexpr char link[] = "nm0";
constexpr char service[] = "org.freedesktop.NetworkManager";
constexpr char wired[] = "org.freedesktop.NetworkManager.Device.Wired";
constexpr std::uint32_t activated = 100;  // NM_DEVICE_STATE_ACTIVATED

// It manages one link, with a fixed address.
void configure()
{
    const std::string folder = "/run/private/NetworkManager";
    const std::string profile = folder + "/system-connections/nm0.nmconnection";
    std::filesystem::create_directories(folder + "/conf.d");
    std::filesystem::create_directories(folder + "/system-connections");
    std::ofstream(folder + "/conf.d/bench.conf") << "[main]\nno-auto-default=*\n"
                                                    "[keyfile]\nunmanaged-devices=except:interface-name:nm0\n";
    std::ofstream(profile) << "[connection]\nid=nm0\ntype=ethernet\ninterface-name=nm0\n"
                              "[ipv4]\nmethod=manual\naddress1=10.9.0.2/24,10.9.0.1\n[ipv6]\nmethod=disabled\n";
    require(chmod(profile.c_str(), 0600) == 0, "chmod");
}

/// The device's signals, as any program on the bus gets them.
class Device {
public:
    Device()
    {
        sd_bus* opened = nullptr;
        require(sd_bus_open_system(&opened) >= 0, "sd_bus_open_system");
        mBus.reset(opened);
        const std::string path = findPath();
        require(sd_bus_match_signal(opened, nullptr, service, path.c_str(), "org.freedesktop.DBus.Properties",
                                    "PropertiesChanged", onProperties, this) >= 0,
                "sd_bus_match_signal");
        require(sd_bus_match_signal(opened, nullptr, service, path.c_str(), "org.freedesktop.NetworkManager.Device",
                                    "StateChanged", onState, this) >= 0,
                "sd_bus_match_signal");
        std::uint32_t state = 0;
        int hasCarrier = 0;
        require(sd_bus_get_property_trivial(opened, service, path.c_str(), "org.freedesktop.NetworkManager.Device",
                                            "State", nullptr, 'u', &state) >= 0,
                "reading the device's state");
        require(sd_bus_get_property_trivial(opened, service, path.c_str(), wired, "Carrier", nullptr, 'b',
                                            &hasCarrier) >= 0,
                "reading the device's carrier");
        mIsActive = state == activated;
        mHasCarrier = hasCarrier != 0;
    }

    /// Returns when the signal arrived that the carrier, or being activated, is now as wanted.
    Clock::time_point await(Signal signal, bool wanted)
    {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(30);
        while ((signal == Signal::carrier ? mHasCarrier : mIsActive) != wanted) {
            require(Clock::now() < end, "waiting for NetworkManager");
            const int processed = sd_bus_process(mBus.get(), nullptr);
            require(processed >= 0, "sd_bus_process");
            if (processed == 0) sd_bus_wait(mBus.get(), 1'000'000);
        }
        return mChanged;
    }

private:
    // It knows its devices a moment after it has its name on the bus.
    std::string findPath()
    {
        sd_bus_message* reply = nullptr;
        const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
        while (sd_bus_call_method(mBus.get(), service, "/org/freedesktop/NetworkManager", service, "GetDeviceByIpIface",
                                  nullptr, &reply, "s", link) < 0) {
            require(Clock::now() < end, "GetDeviceByIpIface");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const SdBusMessagePtr owner(reply);
        const char* path = nullptr;
        require(sd_bus_message_read(reply, "o", &path) >= 0, "GetDeviceByIpIface");
        return path;
    }

    static int onProperties(sd_bus_message* message, void* data, sd_bus_error*)
    {
        auto* self = static_cast<Device*>(data);
        const char* interface = nullptr;
        sd_bus_message_read(message, "s", &interface);
        if (std::string(interface) != wired) return 0;
        sd_bus_message_enter_container(message, 'a', "{sv}");
        while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
            const char* name = nullptr;
            sd_bus_message_read(message, "s", &name);
            int hasCarrier = 0;
            if (std::string(name) == "Carrier") {
                sd_bus_message_read(message, "v", "b", &hasCarrier);
                self->mHasCarrier = hasCarrier != 0;
                self->mChanged = Clock::now();
            } else {
                sd_bus_message_skip(message, "v");
            }
            sd_bus_message_exit_container(message);
        }
        return 0;
    }

    static int onState(sd_bus_message* message, void* data, sd_bus_error*)
    {
        auto* self = static_cast<Device*>(data);
        std::uint32_t state = 0;
        sd_bus_message_read(message, "u", &state);
        self->mIsActive = state == activated;
        self->mChanged = Clock::now();
        return 0;
    }

    SdBusPtr mBus;
    bool mHasCarrier = false;
    bool mIsActive = false;
    Clock::time_point mChanged{};
};

double measureLoss(Device& device, KernelEvents& kernel, Signal awaited)
{
    device.await(Signal::state, true);
    kernel.forget();
    setLink(link, false);
    const Clock::time_point down = Clock::now();
    const Clock::time_point told = device.await(awaited, false);
    const double seconds = std::chrono::duration<double>(told - kernel.firstBefore(down)).count();
    setLink(link, true);
    device.await(Signal::carrier, true);
    device.await(Signal::state, true);
    return seconds;
}

/// Measures what the other end asks for, until it closes.
void serve(int end)
{
    const std::string failure = testsupport::enterPrivateNamespaces();
    require(failure.empty(), failure.c_str());
    const testsupport::ChildProcess bus = testsupport::startBus();
    configure();
    testsupport::addVethPair(link, "nmpeer0", nullptr);
    const testsupport::ChildProcess manager = testsupport::startDaemon(testsupport::Daemon::networkManager);
    Device device;
    device.await(Signal::state, true);
    KernelEvents kernel;
    kernel.await(RTM_NEWLINK);
    double result = 0;
    require(write(end, &result, sizeof result) == static_cast<ssize_t>(sizeof result), "answering");
    Signal awaited{};
    while (read(end, &awaited, sizeof awaited) == static_cast<ssize_t>(sizeof awaited)) {
        result = measureLoss(device, kernel, awaited);
        require(write(end, &result, sizeof result) == static_cast<ssize_t>(sizeof result), "answering");
    }
}

double answerOf(int end)
{
    double result = 0;
    require(read(end, &result, sizeof result) == static_cast<ssize_t>(sizeof result), "measuring NetworkManager");
    return result;
}

}  // namespace

NetworkManagerPeer::NetworkManagerPeer()
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    mEnd.reset(ends[0]);
    UniqueFd other(ends[1]);
    std::fflush(stdout);
    mChild = fork();
    require(mChild >= 0, "fork");
    if (mChild == 0) {
        mEnd.reset();
        serve(other.get());
        std::fflush(stdout);
        _exit(0);
    }
    other.reset();
    answerOf(mEnd.get());
}

NetworkManagerPeer::~NetworkManagerPeer()
{
    mEnd.reset();
    waitpid(mChild, nullptr, 0);
}

double NetworkManagerPeer::secondsOfLoss(Signal awaited)
{
    require(write(mEnd.get(), &awaited, sizeof awaited) == static_cast<ssize_t>(sizeof awaited),
            "asking NetworkManager");
    return answerOf(mEnd.get());
}

}  // namespace bench
