// SPDX-License-Identifier: Apache-2.0
//
// How long news takes: from a service's push to the agent's callback, through the real plug-in and a real bus, against
// a bare sd-bus signal of the same payload; calls; what is sustained; and what it costs when nothing happens.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Comparison.h"
#include "Daemons.h"
#include "LoadedPlugin.h"
#include "LoopThread.h"
#include "Require.h"
#include "handles/SdBus.h"
#include "kest/SystemPluginCB.h"
#include "quorservice.h"

namespace {

using bench::require;

using Clock = std::chrono::steady_clock;
using testsupport::LoopThread;

constexpr char payload[] =
    R"({"returnValue":true,"wifi":{"state":"connected","onInternet":"yes","interfaceName":"eth0","ipAddress":"10.0.0.2"},)"
    R"("wan":{"state":"disconnected","onInternet":"no"}})";
constexpr char interfaceName[] = "com.vesk.JsonService1";

double seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// Counts arrivals, and lets another thread wait for them.
class Arrivals {
public:
    void note()
    {
        const Clock::time_point now = Clock::now();
        const std::lock_guard<std::mutex> lock(mLock);
        mLast = now;
        if (++mCount >= mWanted) mReached.notify_one();
    }
    void expect(int more)
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mWanted = mCount + more;
    }
    /// When the last one arrived.
    Clock::time_point wait()
    {
        std::unique_lock<std::mutex> lock(mLock);
        require(mReached.wait_for(lock, std::chrono::seconds(60), [this] { return mCount >= mWanted; }), "an arrival");
        return mLast;
    }

private:
    std::mutex mLock;
    std::condition_variable mReached;
    int mCount = 0;
    int mWanted = 0;
    Clock::time_point mLast;
};

class Agent : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override {}
    void OnPowerResume() override {}
    void OnConnectionChange(std::uint32_t) override { arrivals.note(); }
    void OnConfigurationChange() override {}

    Arrivals arrivals;
};

SdBusPtr openBus()
{
    sd_bus* bus = nullptr;
    require(sd_bus_open_system(&bus) >= 0, "sd_bus_open_system");
    return SdBusPtr(bus);
}

/// A bus object on a thread of its own that does nothing but work off what arrives.
class BarePeer {
public:
    explicit BarePeer(sd_bus_message_handler_t handler, void* data, const char* name = nullptr)
    {
        mBus = openBus();
        const char* unique = nullptr;
        require(sd_bus_get_unique_name(mBus.get(), &unique) >= 0, "sd_bus_get_unique_name");
        mName = unique;
        require(sd_bus_add_filter(mBus.get(), nullptr, handler, data) >= 0, "sd_bus_add_filter");
        if (name != nullptr) require(sd_bus_request_name(mBus.get(), name, 0) >= 0, "sd_bus_request_name");
        mThread = std::thread([this] {
            while (!mStopped) {
                const int result = sd_bus_process(mBus.get(), nullptr);
                if (result == 0) sd_bus_wait(mBus.get(), UINT64_MAX);
                if (result < 0) return;
            }
        });
    }
    ~BarePeer()
    {
        mStopped = true;
        const SdBusPtr waker = openBus();
        sd_bus_message* message = nullptr;
        sd_bus_message_new_signal(waker.get(), &message, "/", interfaceName, "Wake");
        const SdBusMessagePtr owner(message);
        sd_bus_send_to(waker.get(), message, mName.c_str(), nullptr);
        sd_bus_flush(waker.get());
        mThread.join();
    }
    const std::string& name() const { return mName; }

private:
    SdBusPtr mBus;
    std::string mName;
    std::atomic<bool> mStopped{false};
    std::thread mThread;
};

/// The service that the plug-in subscribes to.
class Service {
public:
    Service()
    {
        static QSMethod methods[] = {{"getStatus",
                                      [](QSHandle* handle, QSMessage* message, void*) {
                                          QSSubscriptionAdd(handle, "status", message, nullptr);
                                          return QSMessageReply(handle, message, "{}", nullptr);
                                      }},
                                     {nullptr, nullptr}};
        require(QSRegister("com.vesk.connectionmanager", &mHandle, nullptr), "QSRegister");
        QSRegisterCategory(mHandle, "/", methods, nullptr, nullptr, nullptr);
        QSGmainAttach(mHandle, mThread.loop(), nullptr);
    }
    ~Service() { QSUnregister(mHandle, nullptr); }
    /// On the loop's thread.
    void push(int count) const
    {
        for (int i = 0; i < count; ++i)
            QSSubscriptionReply(mHandle, "status", payload, nullptr);
    }
    GMainContext* context() const { return g_main_loop_get_context(mThread.loop()); }

private:
    LoopThread mThread;
    QSHandle* mHandle = nullptr;
};

void sendBare(sd_bus* bus, const std::string& to, int count)
{
    for (int i = 0; i < count; ++i) {
        sd_bus_message* message = nullptr;
        sd_bus_message_new_signal(bus, &message, "/", interfaceName, "Push");
        const SdBusMessagePtr owner(message);
        sd_bus_message_append(message, "us", 7u, payload);
        sd_bus_send_to(bus, message, to.c_str(), nullptr);
    }
    sd_bus_flush(bus);
}

/// Seconds from the begin of `send`, which runs on the sender's thread, to the last of `count` arrivals. Nobody but the
/// receiver is woken meanwhile.
double timeNews(GMainContext* sender, Arrivals& arrivals, int count, const std::function<void(int)>& send)
{
    struct Posted {
        const std::function<void(int)>& send;
        int count;
        std::atomic<Clock::time_point> begin;
    } posted{send, count, {}};
    arrivals.expect(count);
    const GSourceFunc run = [](gpointer data) -> gboolean {
        auto* self = static_cast<Posted*>(data);
        self->begin = Clock::now();
        self->send(self->count);
        return G_SOURCE_REMOVE;
    };
    const GSourcePtr source(g_idle_source_new());
    g_source_set_callback(source.get(), run, &posted, nullptr);
    g_source_attach(source.get(), sender);
    const Clock::time_point end = arrivals.wait();
    testsupport::callOnContext(sender, [] {});  // it is done with what lies here
    return seconds(end - posted.begin.load());
}

/// The quantile of so many news, sent one at a time with a pause in between.
double paced(GMainContext* sender, Arrivals& arrivals, double quantile, const std::function<void(int)>& send)
{
    constexpr int count = 500;
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        times.push_back(timeNews(sender, arrivals, 1, send));
    }
    std::sort(times.begin(), times.end());
    return times[static_cast<std::size_t>(count * quantile)];
}

void comparePushes(bench::Table& table, Service& service, Agent& agent)
{
    Arrivals bareArrivals;
    const auto onSignal = [](sd_bus_message* message, void* arrivals, sd_bus_error*) -> int {
        std::uint32_t serial = 0;
        const char* text = nullptr;
        if (sd_bus_message_is_signal(message, interfaceName, "Push") <= 0) return 0;
        if (sd_bus_message_read(message, "us", &serial, &text) > 0) static_cast<Arrivals*>(arrivals)->note();
        return 1;
    };
    const BarePeer receiver(onSignal, &bareArrivals);
    const SdBusPtr sender = openBus();
    GMainContext* context = service.context();
    const auto ours = [&](int count) { service.push(count); };
    const auto bare = [&](int count) { sendBare(sender.get(), receiver.name(), count); };
    table.compare(
        "push to OnConnectionChange, median", 1.3, [&] { return paced(context, agent.arrivals, 0.5, ours); },
        [&] { return paced(context, bareArrivals, 0.5, bare); });
    table.compare(
        "push to OnConnectionChange, 99 of 100", 1.5, [&] { return paced(context, agent.arrivals, 0.99, ours); },
        [&] { return paced(context, bareArrivals, 0.99, bare); });
    constexpr int many = 20000;
    table.compare(
        "20000 pushes on end", 1 / 0.7, [&] { return timeNews(context, agent.arrivals, many, ours); },
        [&] { return timeNews(context, bareArrivals, many, bare); });
}

int answerEcho(sd_bus_message* message, void*, sd_bus_error*)
{
    const char* text = nullptr;
    if (sd_bus_message_is_method_call(message, interfaceName, "echo") <= 0) return 0;
    sd_bus_message_read(message, "s", &text);
    sd_bus_reply_method_return(message, "s", text);
    return 1;
}

constexpr char echoName[] = "com.example.echo";
constexpr char echoUri[] = "vesk://com.example.echo/echo";

/// Calls one after the other, each from the handler of the one before, as on the event thread.
struct OurChain {
    QSHandle* handle;
    int left = 0;
    std::promise<void> done;

    void next()
    {
        const auto onReply = [](QSHandle*, QSMessage*, void* chain) {
            auto* self = static_cast<OurChain*>(chain);
            --self->left > 0 ? self->next() : self->done.set_value();
            return true;
        };
        require(QSCall(handle, echoUri, payload, onReply, this, nullptr, nullptr), "QSCall");
    }
};

struct BareChain {
    sd_bus* bus;
    int left = 0;

    void next()
    {
        const auto onReply = [](sd_bus_message* reply, void* chain, sd_bus_error*) -> int {
            const char* text = nullptr;
            sd_bus_message_read(reply, "s", &text);
            auto* self = static_cast<BareChain*>(chain);
            if (--self->left > 0) self->next();
            return 0;
        };
        require(sd_bus_call_method_async(bus, nullptr, echoName, "/", interfaceName, "echo", onReply, this, "s",
                                         payload) >= 0,
                "sd_bus_call_method_async");
    }
    void run(int count)
    {
        left = count;
        next();
        while (left > 0) {
            if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, UINT64_MAX);
        }
    }
};

void compareCalls(bench::Table& table)
{
    const BarePeer echo(answerEcho, nullptr, echoName);
    LoopThread thread;
    QSHandle* handle = nullptr;
    require(QSRegister(nullptr, &handle, nullptr) && QSGmainAttach(handle, thread.loop(), nullptr), "QSRegister");
    const SdBusPtr bus = openBus();
    constexpr int count = 1000;
    const auto ours = [&] {
        OurChain chain{handle, count, {}};
        std::future<void> done = chain.done.get_future();
        thread.call([&chain] { chain.next(); });
        done.wait();
    };
    table.compare("1000 calls, each from the reply before", 1.3, bench::timed(ours),
                  bench::timed([&] { BareChain{bus.get()}.run(count); }));
    const auto fromAnotherThread = [&] {
        for (int i = 0; i < count; ++i) {
            OurChain chain{handle, 1, {}};
            std::future<void> done = chain.done.get_future();
            chain.next();
            done.wait();
        }
    };
    const auto blocking = [&] {
        for (int i = 0; i < count; ++i) {
            sd_bus_message* reply = nullptr;
            require(
                sd_bus_call_method(bus.get(), echoName, "/", interfaceName, "echo", nullptr, &reply, "s", payload) >= 0,
                "sd_bus_call_method");
            sd_bus_message_unref(reply);
        }
    };
    // Two threads take part in ours, and only one in the blocking call; told for comparison, without a limit of its
    // own.
    table.compare("1000 calls from another thread than the loop's", 10, bench::timed(fromAnotherThread),
                  bench::timed(blocking));
    QSUnregister(handle, nullptr);
}

long voluntarySwitches(const std::string& task)
{
    std::ifstream status(task + "/status");
    std::string line;
    const std::string key = "voluntary_ctxt_switches:";
    while (std::getline(status, line)) {
        if (line.rfind(key, 0) == 0) return std::stol(line.substr(key.size()));
    }
    return -1;
}

/// The plug-in's event thread, by its name.
std::string eventThread()
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (name == "wfoal-events") return task.path();
    }
    require(false, "finding the event thread");
    return {};
}

void countIdleWakeUps(bench::Table& table)
{
    testsupport::ChildProcess manager({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
    testsupport::waitForBusName("com.vesk.connectionmanager", manager);
    std::this_thread::sleep_for(std::chrono::seconds(2));  // the subscription, and the first look
    const std::string tasks[] = {eventThread(), "/proc/" + std::to_string(manager.pid())};
    long before[] = {voluntarySwitches(tasks[0]), voluntarySwitches(tasks[1])};
    std::this_thread::sleep_for(std::chrono::seconds(30));
    table.ratio("event thread: wake-ups in 30 idle seconds", 0,
                static_cast<double>(voluntarySwitches(tasks[0]) - before[0]));
    table.ratio("connection manager: wake-ups in 30 idle seconds", 0,
                static_cast<double>(voluntarySwitches(tasks[1]) - before[1]));
}

}  // namespace

int main()
{
    setenv("VKLOG_LEVEL", "3", 1);
    const testsupport::ChildProcess bus = testsupport::startBus();
    bench::Table table("Events: ours against bare sd-bus on the same bus");
    Agent agent;
    const testsupport::LoadedPlugin plugin;
    KEST_SystemPlugin* systemIf = nullptr;
    KEST_SocketPlugin* socketIf = nullptr;
    {
        Service service;
        systemIf = plugin.createSystem();
        socketIf = plugin.createSocket();
        systemIf->SetSystemPluginCB(&agent);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the subscription
        comparePushes(table, service, agent);
    }
    compareCalls(table);
    countIdleWakeUps(table);
    plugin.dispose(systemIf);
    plugin.dispose(socketIf);
    return table.result();
}
