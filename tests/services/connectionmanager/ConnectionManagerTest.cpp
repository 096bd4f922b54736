// SPDX-License-Identifier: Apache-2.0
//
// The connection manager as its users meet it: the program on a real bus, over a real kernel.
#include <fcntl.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <json-c/json.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "Files.h"
#include "JsonTexts.h"
#include "LoopThread.h"
#include "quorservice.h"

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::SizeIs;
using testsupport::ChildProcess;
using testsupport::LoopThread;
using testsupport::Mailbox;

constexpr char serviceName[] = "com.vesk.connectionmanager";
constexpr char off[] = R"("state":"disconnected","onInternet":"no")";

void sh(const std::string& command)
{
    const auto result = testsupport::runCommand({"sh", "-ec", command});
    ASSERT_EQ(0, result.status) << command << ": " << result.output;
}

std::string section(const std::string& payload, const char* name)
{
    json_object* status = json_tokener_parse(payload.c_str());
    const char* text = json_object_to_json_string_ext(json_object_object_get(status, name), JSON_C_TO_STRING_PLAIN);
    const std::string result = text;
    json_object_put(status);
    return result;
}

class ConnectionManagerTest : public testing::Test {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        sh("ip link add eth0 type veth peer name peer0; ip link set peer0 up; ip addr add 10.0.0.2/24 dev eth0;"
           "ip link add wwan0 type veth peer name peer1; ip link set peer1 up; ip addr add 10.1.0.2/24 dev wwan0");
        startService();
        ASSERT_TRUE(QSRegister(nullptr, &mClient, nullptr));
        ASSERT_TRUE(QSGmainAttach(mClient, mThread.loop(), nullptr));
    }
    void TearDown() override
    {
        if (mClient != nullptr) QSUnregister(mClient, nullptr);
        sh("ip link del eth0; ip link del wwan0");
    }

    void startService()
    {
        mService = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName(serviceName, mService);
    }
    static void wifiUp() { sh("ip link set eth0 up; ip route add default via 10.0.0.1 dev eth0 metric 100"); }
    static void wanUp() { sh("ip link set wwan0 up; ip route add default via 10.1.0.1 dev wwan0 metric 700"); }

    /// What the service answers to a request that the client library would not send.
    static std::string ask(const std::string& payload)
    {
        return testsupport::runCommand({"busctl", "--system", "--", "call", serviceName, "/", "com.vesk.JsonService1",
                                        "getStatus", "s", payload})
            .output;
    }

    void subscribe(const char* payload = R"({"subscribe":true})") { ask(payload, mStatuses); }
    void ask(const char* payload, Mailbox& answers)
    {
        ASSERT_TRUE(QSCall(
            mClient, "vesk://com.vesk.connectionmanager/getStatus", payload,
            [](QSHandle*, QSMessage* message, void* mailbox) {
                static_cast<Mailbox*>(mailbox)->put(QSMessageGetPayload(message));
                return true;
            },
            &answers, nullptr, nullptr));
    }
    /// What has arrived of all that happened so far. Whoever asks makes the service look at once, and push what has
    /// changed; its answer comes after that, on the same connection.
    std::vector<std::string> settled()
    {
        Mailbox answer;
        ask("{}", answer);
        EXPECT_THAT(answer.wait(1), SizeIs(1));
        return mStatuses.all();
    }
    /// Waits until the last status that has arrived says this of Wi-Fi.
    testing::AssertionResult wifiBecomes(const char* text)
    {
        std::size_t count = 1;
        for (;;) {
            const std::vector<std::string> statuses = mStatuses.wait(count);
            if (statuses.size() < count) return testing::AssertionFailure() << testing::PrintToString(statuses);
            if (section(statuses.back(), "wifi").find(text) != std::string::npos) return testing::AssertionSuccess();
            count = statuses.size() + 1;
        }
    }

    ChildProcess mBus;
    ChildProcess mService;
    Mailbox mStatuses;
    LoopThread mThread;
    QSHandle* mClient = nullptr;
};

TEST_F(ConnectionManagerTest, FirstReplySaysHowItIs)
{
    subscribe("{}");
    EXPECT_EQ(std::string("{\"returnValue\":true,\"wifi\":{") + off + "},\"wan\":{" + off + "}}",
              mStatuses.wait(1).at(0));
}

TEST_F(ConnectionManagerTest, RequestsAreReadStrictly)
{
    for (const char* payload : {"", "{} {}", "{'subscribe':true}", "{\"subscribe\":true", "{\"subscribe\":true,}",
                                "{\"subscribe\":tRUE}", "{/* */}", "NaN"}) {
        EXPECT_THAT(ask(payload), HasSubstr("the request is not JSON: ")) << payload;
    }
    EXPECT_THAT(ask("[]"), HasSubstr("the request: must be an object"));
    EXPECT_THAT(ask("{\"subscribe\":\"true\"}"), HasSubstr("subscribe: must be true or false"));
    EXPECT_THAT(ask("{\"subscribe\":true,\"subscribe\":true}"), HasSubstr("subscribe: given twice"));
    EXPECT_THAT(ask("{\"subscribed\":true}"), HasSubstr("subscribed: unknown key"));
    EXPECT_THAT(ask("{}"), HasSubstr("\\\"returnValue\\\":true"));
}

TEST_F(ConnectionManagerTest, BrokenTextsAreRefused)
{
    std::size_t number = 0;
    for (const auto& [name, text] : testsupport::brokenJsonTexts()) {
        if (number++ % 3 != 0) continue;
        if (!g_utf8_validate(text.c_str(), -1, nullptr)) continue;  // the bus carries none of these
        EXPECT_THAT(ask(text), HasSubstr("the request is not JSON: ")) << name;
    }
}

TEST_F(ConnectionManagerTest, ReplyIsNotStaleRightAfterAChange)
{
    wifiUp();
    sh("until ip link show eth0 | grep -q 'state UP'; do :; done");
    subscribe();
    EXPECT_THAT(section(mStatuses.wait(1).at(0), "wifi"), HasSubstr(R"("state":"connected","onInternet":"yes")"));
    EXPECT_THAT(settled(), SizeIs(1));  // and is not pushed once more
}

TEST_F(ConnectionManagerTest, EachNewStatusIsLogged)
{
    mService.stop();
    const UniqueFd log(open("/tmp/connectionmanager.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    mService = ChildProcess({"env", "VKLOG_TARGET=stderr", WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"}, log.get());
    testsupport::waitForBusName(serviceName, mService);
    subscribe();
    mStatuses.wait(1);
    wifiUp();
    ASSERT_TRUE(wifiBecomes(R"("onInternet":"yes")"));
    EXPECT_THAT(testsupport::contentOf("/tmp/connectionmanager.log"),
                HasSubstr("connectionmanager[6]: " + mStatuses.all().back() + "\n"));
}

TEST_F(ConnectionManagerTest, ChangesArePushedWithAddressAndName)
{
    subscribe();
    mStatuses.wait(1);
    wifiUp();
    EXPECT_EQ(R"({"state":"connected","onInternet":"yes","interfaceName":"eth0","ipAddress":"10.0.0.2"})",
              section(mStatuses.wait(2).at(1), "wifi"));
    wanUp();
    EXPECT_EQ(R"({"state":"connected","onInternet":"yes","interfaceName":"wwan0","ipAddress":"10.1.0.2"})",
              section(mStatuses.wait(3).at(2), "wan"));
    sh("ip link set peer0 down");  // the carrier goes
    EXPECT_EQ(std::string("{") + off + "}", section(mStatuses.wait(4).at(3), "wifi"));
    EXPECT_THAT(settled(), SizeIs(4));
}

// It waits for its default route a moment only.
TEST_F(ConnectionManagerTest, NetworkWithoutInternetIsPushedToo)
{
    subscribe();
    mStatuses.wait(1);
    sh("ip link set eth0 up");
    EXPECT_TRUE(wifiBecomes(R"("state":"connected","onInternet":"no")"));
}

TEST_F(ConnectionManagerTest, LostDefaultRouteIsLostInternet)
{
    wifiUp();
    subscribe();
    sh("ip route del default");
    EXPECT_TRUE(wifiBecomes(R"("state":"connected","onInternet":"no")"));
}

TEST_F(ConnectionManagerTest, ChangesThatEndWhereTheyBeganAreNotPushed)
{
    subscribe();
    mStatuses.wait(1);
    sh("ip link set eth0 up; ip link set eth0 down");
    sh("ip link add eth9 type veth peer name peer9; ip link set eth9 up; ip link del eth9");
    sh("ip route add 10.9.0.0/16 dev lo; ip route del 10.9.0.0/16 dev lo");
    EXPECT_THAT(settled(), SizeIs(1));
    wanUp();  // the kernel tells of links in order, some a moment later
    const std::vector<std::string> statuses = mStatuses.wait(2);
    ASSERT_THAT(statuses, SizeIs(2));
    EXPECT_EQ(std::string("{") + off + "}", section(statuses.back(), "wifi"));
    EXPECT_THAT(section(statuses.back(), "wan"), HasSubstr(R"("state":"connected","onInternet":"yes")"));
}

TEST_F(ConnectionManagerTest, FlappingLinkIsPushedTwiceAtMost)
{
    subscribe();
    mStatuses.wait(1);
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    auto previous = begin;
    std::size_t pauses = 0;  // after which the next change may count as the first of another burst
    for (int i = 0; i < 20; ++i) {
        const auto before = Clock::now();
        sh(i % 2 == 0 ? "ip link set eth0 up" : "ip link set eth0 down");
        if (Clock::now() - previous >= milliseconds(100)) ++pauses;
        previous = before;
        std::this_thread::sleep_for(milliseconds(48));
    }
    // A second of it is pushed twice at most; a slow machine flaps for longer, and pauses.
    const auto halfSeconds = static_cast<std::size_t>((Clock::now() - begin) / milliseconds(500));
    EXPECT_LE(settled().size(), 1u + std::max<std::size_t>(2, halfSeconds + 1) + pauses);
}

TEST_F(ConnectionManagerTest, CallerWithoutSubscriptionGetsNoPush)
{
    subscribe(R"({"subscribe":false})");
    mStatuses.wait(1);
    Mailbox subscriber;
    ask(R"({"subscribe":true})", subscriber);
    subscriber.wait(1);
    wifiUp();
    EXPECT_THAT(subscriber.wait(2), SizeIs(2));
    EXPECT_THAT(settled(), SizeIs(1));
}

TEST_F(ConnectionManagerTest, RestartedBusGetsItBack)
{
    Mailbox service;
    const auto note = [](QSHandle*, const char*, bool connected, void* mailbox) {
        static_cast<Mailbox*>(mailbox)->put(connected ? "there" : "gone");
        return true;
    };
    ASSERT_TRUE(QSRegisterServerStatus(mClient, serviceName, note, &service, nullptr));
    service.wait(1);
    mBus.sendSignal(SIGKILL);
    mBus.wait();
    mBus = testsupport::startBus();
    EXPECT_THAT(service.wait(3), testing::ElementsAre("there", "gone", "there"));
    subscribe("{}");
    EXPECT_THAT(mStatuses.wait(1).at(0), HasSubstr("\"returnValue\":true"));
    QSUnregister(mClient, nullptr);  // before what it notes into goes
    mClient = nullptr;
}

TEST_F(ConnectionManagerTest, SecondOneDoesNotComeUp)
{
    ChildProcess second({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
    EXPECT_EQ(1, second.wait());
    EXPECT_TRUE(mService.running());
}

TEST_F(ConnectionManagerTest, EndsInOrderWhenItIsAskedTo)
{
    mService.sendSignal(SIGTERM);
    EXPECT_EQ(0, mService.wait());
}

// The policy that is installed: the status is for everybody, the name for root only.
TEST_F(ConnectionManagerTest, PolicyLetsEverybodyAskAndNobodyElseOwn)
{
    std::ifstream policy(WFOAL_SOURCE_DIR "/packaging/dbus/com.vesk.connectionmanager.conf");
    const std::string text((std::istreambuf_iterator<char>(policy)), {});
    EXPECT_THAT(text, HasSubstr("<policy user=\"root\">"));
    sh("cp " WFOAL_SOURCE_DIR "/packaging/dbus/com.vesk.connectionmanager.conf /run/private/bus-policy.conf");
    mBus.sendSignal(SIGHUP);
    const auto call = [](const char* method) {
        return testsupport::runCommand(
            {"busctl", "--system", "call", serviceName, "/", "com.vesk.JsonService1", method, "s", "{}"});
    };
    EXPECT_EQ(0, call("getStatus").status);
    EXPECT_TRUE(testsupport::comesTrue([&call] { return call("other").output.find("denied") != std::string::npos; }));
    EXPECT_EQ(0, call("getStatus").status);
}

TEST_F(ConnectionManagerTest, NetworkManagerDecidesWhileItOwnsItsName)
{
    const std::string reason = testsupport::daemonUnavailable(testsupport::Daemon::networkManager);
    if (!reason.empty()) GTEST_SKIP() << reason;
    wifiUp();
    subscribe();
    EXPECT_TRUE(wifiBecomes(R"("onInternet":"yes")"));
    mStatuses.clear();
    {
        // It leaves the test's interfaces as they are, and finds nobody to answer its check.
        sh("mkdir -p /run/private/NetworkManager/conf.d; printf '[main]\\nno-auto-default=*\\n[connectivity]\\n"
           "uri=http://127.0.0.1:9/\\ninterval=1\\n' >/run/private/NetworkManager/conf.d/test.conf");
        const ChildProcess manager = testsupport::startDaemon(testsupport::Daemon::networkManager);
        mStatuses.wait(1);
        ASSERT_FALSE(mStatuses.all().empty());
        EXPECT_THAT(section(mStatuses.all().back(), "wifi"), HasSubstr(R"("state":"connected","onInternet":"no")"));
        mStatuses.clear();
    }
    mStatuses.wait(1);
    ASSERT_FALSE(mStatuses.all().empty());
    EXPECT_THAT(section(mStatuses.all().back(), "wifi"), HasSubstr(R"("onInternet":"yes")"));
}

}  // namespace
