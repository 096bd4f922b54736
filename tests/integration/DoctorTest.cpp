// SPDX-License-Identifier: Apache-2.0
//
// What vpnoalctl doctor finds on the bus, among the interfaces and in the folders, and the remedies it names.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ChildProcess.h"
#include "Daemons.h"
#include "Isolation.h"
#include "Shell.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::shell;

constexpr char trustStore[] = "/var/ssl/trustedcerts";

CommandResult doctor(const std::vector<std::string>& options = {})
{
    std::vector<std::string> command{WFOAL_BUILD_DIR "/bin/vpnoalctl", "doctor"};
    command.insert(command.end(), options.begin(), options.end());
    return testsupport::runCommand(command);
}

// The line of one check: its state and what was found.
std::string lineOf(const std::string& check)
{
    std::istringstream output(doctor().output);
    constexpr std::size_t name = 9;  // after the state
    for (std::string line; std::getline(output, line);) {
        if (line.compare(name, check.size(), check) != 0) continue;
        const auto detail = line.find_first_not_of(' ', name + check.size());
        return line.substr(0, line.find(' ')) + ": " + line.substr(detail);
    }
    return "no line";
}

class DoctorBusTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/run/private/services");
        // A distribution's own policy: whatever a service does not allow is denied, and the daemon answers on its own
        // interfaces only.
        std::ofstream("/run/private/bus-policy.conf") << R"(<busconfig>
  <policy context="default">
    <deny send_type="method_call"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
</busconfig>
)";
    }
    void TearDown() override
    {
        std::filesystem::remove_all("/run/private/services");
        std::filesystem::remove("/run/private/bus-policy.conf");
    }

    static void makeStartable(const std::string& name)
    {
        std::ofstream("/run/private/services/" + name + ".service")
            << "[D-BUS Service]\nName=" << name << "\nExec=/bin/false\nUser=root\n";
    }
};

TEST_F(DoctorBusTest, OrdinaryPolicyIsNoFault)
{
    const ChildProcess bus = testsupport::startBus();
    ASSERT_NE(0, testsupport::runCommand({"busctl", "--system", "call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                          "org.freedesktop.DBus.Peer", "Ping"})
                     .status);
    EXPECT_EQ("ok: the system bus answers", lineOf("service bus"));
}

TEST_F(DoctorBusTest, BusThatIsNotThereIsNamed)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/private/nothing", 1);
    for (const char* check : {"service bus", "connection manager", "certificate manager", "logind"}) {
        EXPECT_EQ(
            "limited: the system bus does not answer: No such file or directory; start dbus; without it nothing "
            "reports "
            "network changes and sleep",
            lineOf(check));
    }
}

TEST_F(DoctorBusTest, ServicesThatAreMissingAreNamedWithWhatIsLost)
{
    const ChildProcess bus = testsupport::startBus();
    EXPECT_EQ(
        "limited: com.vesk.connectionmanager is not on the bus and cannot be started; install vpnwfoal-services; "
        "without it nothing reports network changes",
        lineOf("connection manager"));
    EXPECT_EQ(
        "limited: com.vesk.certificatemanager is not on the bus and cannot be started; install vpnwfoal-services; "
        "without it no certificate can be imported",
        lineOf("certificate manager"));
    EXPECT_EQ(
        "limited: org.freedesktop.login1 is not on the bus and cannot be started; start systemd-logind or elogind; "
        "without one nothing reports the device's sleep",
        lineOf("logind"));
}

TEST_F(DoctorBusTest, ServicesThatRunOrCanBeStartedAreWell)
{
    makeStartable("com.vesk.certificatemanager");
    makeStartable("org.freedesktop.login1");
    const ChildProcess bus = testsupport::startBus();
    ChildProcess manager({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
    testsupport::waitForBusName("com.vesk.connectionmanager", manager);
    EXPECT_EQ("ok: com.vesk.connectionmanager is on the bus", lineOf("connection manager"));
    EXPECT_EQ("ok: com.vesk.certificatemanager starts when it is called", lineOf("certificate manager"));
    EXPECT_EQ("ok: org.freedesktop.login1 starts when it is called", lineOf("logind"));
}

class DoctorInterfaceTest : public testing::Test {
protected:
    void TearDown() override
    {
        for (const std::string& name : mNames)
            shell("ip link del " + name);
    }

    void addInterface(const std::string& name, const std::string& address, int metric)
    {
        testsupport::addVethPair(name, name + "peer", nullptr);
        mNames.push_back(name);
        shell("ip link set " + name + " address " + address);
        shell("ip route add default dev " + name + " metric " + std::to_string(metric));
    }

private:
    std::vector<std::string> mNames;
};

TEST_F(DoctorInterfaceTest, ChosenInterfaceIsNamed)
{
    addInterface("wlp2s0", "02:00:00:00:00:01", 50);
    addInterface("eth0", "02:00:00:00:00:02", 100);
    EXPECT_EQ("ok: eth0 is for the outer connection", lineOf("preferred interface"));
}

TEST_F(DoctorInterfaceTest, WithoutADefaultRouteThereIsNone)
{
    EXPECT_EQ("limited: none: there is no default route; connect to a network", lineOf("preferred interface"));
}

TEST_F(DoctorInterfaceTest, RouteThatIsNeverChosenIsNamed)
{
    addInterface("eth0", "02:00:00:00:00:02", 9999);
    EXPECT_EQ("limited: none: the default route's metric is 9999 or more; give it a lower metric",
              lineOf("preferred interface"));
}

TEST_F(DoctorInterfaceTest, InterfacesWithOtherNamesAreToldHowToBeRenamed)
{
    addInterface("enp3s0", "02:00:00:00:00:03", 100);
    addInterface("wlp2s0", "02:00:00:00:00:04", 600);
    addInterface("wwp0s20", "02:00:00:00:00:05", 700);
    EXPECT_EQ(
        "limited: none: the default route leads through enp3s0, wlp2s0, wwp0s20, and only interfaces called rmnet, "
        "ppp, wwan or eth are chosen; rename it with the file below, and restart the device",
        lineOf("preferred interface"));
    EXPECT_THAT(doctor().output, HasSubstr("\n"
                                           "/etc/systemd/network/10-enp3s0.link:\n"
                                           "    [Match]\n"
                                           "    MACAddress=02:00:00:00:00:03\n"
                                           "\n"
                                           "    [Link]\n"
                                           "    Name=eth10\n"
                                           "/etc/systemd/network/10-wlp2s0.link:\n"
                                           "    [Match]\n"
                                           "    MACAddress=02:00:00:00:00:04\n"
                                           "\n"
                                           "    [Link]\n"
                                           "    Name=eth11\n"
                                           "/etc/systemd/network/10-wwp0s20.link:\n"
                                           "    [Match]\n"
                                           "    MACAddress=02:00:00:00:00:05\n"
                                           "\n"
                                           "    [Link]\n"
                                           "    Name=wwan10\n"));
    EXPECT_THAT(doctor({"--json"}).output, HasSubstr(R"(restart the device\n/etc/systemd/network/10-enp3s0.link:)"
                                                     R"(\n    [Match]\n    MACAddress=02:00:00:00:00:03\n)"));
}

TEST_F(DoctorInterfaceTest, NameThatIsTakenIsNotProposed)
{
    addInterface("eth10", "02:00:00:00:00:02", 10000);
    addInterface("enp3s0", "02:00:00:00:00:03", 100);
    EXPECT_THAT(doctor().output, HasSubstr("\n    Name=eth11\n"));
}

// Another file in the place of one, until the end of the test.
class MountedOver {
public:
    MountedOver(const char* file, const char* other) : mFile(file)
    {
        EXPECT_EQ("", shell(std::string("mount --bind ") + other + " " + file));
    }
    MountedOver(const MountedOver&) = delete;
    MountedOver& operator=(const MountedOver&) = delete;
    ~MountedOver() { shell(std::string("umount ") + mFile); }

private:
    const char* mFile;
};

TEST(DoctorSystemTest, TunnelDeviceThatIsNoneIsMissing)
{
    const MountedOver device("/dev/net/tun", "/dev/null");
    EXPECT_EQ("missing: /dev/net/tun is not the kernel's tunnel device; load the module: modprobe tun",
              lineOf("tunnel device"));
}

TEST(DoctorSystemTest, IpThatCannotBeRunIsNamed)
{
    const MountedOver ip("/sbin/ip", "/dev/null");
    EXPECT_EQ("limited: /sbin/ip: Permission denied; install iproute2; without it routes cannot be deleted",
              lineOf("ip tool"));
}

TEST(DoctorSystemTest, TemporaryFolderThatCannotBeWrittenIsNamed)
{
    shell("mount -t tmpfs -o ro none /tmp");
    EXPECT_EQ(
        "limited: /tmp: Read-only file system; make it writable: the agent's files and the recovery file live there",
        lineOf("temporary files"));
    shell("umount /tmp");
}

// The file exists in the test's own /etc.
class DoctorGuardTest : public testing::Test {
protected:
    void TearDown() override { std::filesystem::remove_all("/etc/vpnwfoal"); }

    static void configure(const std::string& text)
    {
        std::filesystem::create_directories("/etc/vpnwfoal");
        std::ofstream(settings) << text;
    }
    static constexpr char settings[] = "/etc/vpnwfoal/platform.conf";
};

TEST_F(DoctorGuardTest, WithoutAFileItIsOn)
{
    EXPECT_EQ("ok: on (the default): rejects IPv6 beside a tunnel that takes all traffic", lineOf("guard"));
}

TEST_F(DoctorGuardTest, FileIsTold)
{
    configure("# nothing set\n");
    EXPECT_EQ("ok: on (/etc/vpnwfoal/platform.conf): rejects IPv6 beside a tunnel that takes all traffic",
              lineOf("guard"));
    configure("bypass = 192.0.2.0/24\nbypass = 2001:db8::/32\nstrict = on\n");
    EXPECT_EQ(
        "ok: strict (/etc/vpnwfoal/platform.conf): rejects IPv4 and IPv6 beside a tunnel that takes all traffic, "
        "except to 192.0.2.0/24, 2001:db8::/32",
        lineOf("guard"));
    configure("strict = on\nipv6-guard = off\n");
    EXPECT_EQ("ok: strict (/etc/vpnwfoal/platform.conf): rejects IPv4 beside a tunnel that takes all traffic",
              lineOf("guard"));
}

TEST_F(DoctorGuardTest, GuardThatIsOffIsTold)
{
    configure("ipv6-guard = off\n");
    EXPECT_EQ(
        "limited: off (/etc/vpnwfoal/platform.conf): IPv6 leaves beside a tunnel that takes all traffic; "
        "set ipv6-guard = on",
        lineOf("guard"));
}

TEST_F(DoctorGuardTest, WrongLineIsNamed)
{
    configure("ipv6-guard = on\nstrict = yes\n");
    EXPECT_EQ(
        "limited: /etc/vpnwfoal/platform.conf: line 2: strict: \"yes\" is neither on nor off; "
        "correct it: until then a tunnel that takes all traffic is refused",
        lineOf("guard"));
}

TEST_F(DoctorGuardTest, FileThatOthersMayChangeIsUnsafe)
{
    configure("ipv6-guard = on\n");
    ASSERT_EQ(0, chmod(settings, 0666));
    constexpr char remedy[] =
        "; only root may decide what leaves beside the tunnel: chown root, chmod go-w, and check its content";
    EXPECT_EQ(std::string("unsafe: /etc/vpnwfoal/platform.conf belongs to user 0 and has mode 666") + remedy,
              lineOf("guard"));
    EXPECT_EQ(1, doctor().status);
    ASSERT_EQ(0, chmod(settings, 0644));
    ASSERT_EQ(0, chmod("/etc/vpnwfoal", 0775));
    EXPECT_EQ(std::string("unsafe: /etc/vpnwfoal belongs to user 0 and has mode 775") + remedy, lineOf("guard"));
}

class DoctorFolderTest : public testing::Test {
protected:
    void SetUp() override { clean(); }
    void TearDown() override { clean(); }

    static void clean()
    {
        for (const char* folder : {"/tmp/vpncerts", "/tmp/vpn", "/run/vknetconfig", "/var/ssl"})
            std::filesystem::remove_all(folder);
    }
    static void giveAway(const std::string& folder)
    {
        std::filesystem::create_directories(folder);
        ASSERT_EQ(0, chown(folder.c_str(), 65534, 65534)) << folder;
    }
};

TEST_F(DoctorFolderTest, FoldersThatAreNotThereYetOrOursAreWell)
{
    EXPECT_EQ("ok: no other user owns the plug-in's folders", lineOf("folder owners"));
    for (const char* folder : {"/tmp/vpncerts", "/tmp/vpn/main", "/run/vknetconfig"})
        std::filesystem::create_directories(folder);
    EXPECT_EQ("ok: no other user owns the plug-in's folders", lineOf("folder owners"));
}

TEST_F(DoctorFolderTest, LinksAndOtherFilesAreUnsafe)
{
    std::filesystem::create_directories("/tmp/vpn");
    std::filesystem::create_directory_symlink("/etc", "/tmp/vpncerts");
    std::filesystem::create_directory_symlink("/etc", "/tmp/vpn/profile");
    std::ofstream("/tmp/vpn/temp") << "";
    const CommandResult result = doctor();
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(
        "unsafe: /tmp/vpncerts is a link, /tmp/vpn/profile is a link, /tmp/vpn/temp is no folder; remove it as root: "
        "whoever made it may read or replace what is written there",
        lineOf("folder owners"));
}

TEST_F(DoctorFolderTest, FoldersOfSomebodyElseAreUnsafe)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << "there is no other user in this namespace";
    for (const char* folder : {"/tmp/vpncerts", "/tmp/vpn", "/tmp/vpn/main", "/tmp/vpn/user", "/tmp/vpn/profile",
                               "/tmp/vpn/l10n", "/tmp/vpn/script", "/tmp/vpn/temp", "/run/vknetconfig"})
        giveAway(folder);
    const CommandResult result = doctor();
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(
        "unsafe: /tmp/vpncerts belongs to user 65534, /tmp/vpn belongs to user 65534, /tmp/vpn/main belongs to user "
        "65534, /tmp/vpn/user belongs to user 65534, /tmp/vpn/profile belongs to user 65534, /tmp/vpn/l10n belongs to "
        "user 65534, /tmp/vpn/script belongs to user 65534, /tmp/vpn/temp belongs to user 65534, /run/vknetconfig "
        "belongs to user 65534; remove it as root: whoever made it may read or replace what is written there",
        lineOf("folder owners"));
}

TEST_F(DoctorFolderTest, TrustStoreThatIsNotThereIsNamed)
{
    EXPECT_EQ(
        "limited: /var/ssl/trustedcerts: No such file or directory; make it, put the roots that are to be trusted "
        "there, and run 'openssl rehash' on it",
        lineOf("trust store"));
}

TEST_F(DoctorFolderTest, TrustStoreCountsWhatIsFoundByItsHash)
{
    std::filesystem::create_directories(trustStore);
    std::ofstream(std::string(trustStore) + "/root.pem") << "not looked at";
    EXPECT_EQ(
        "limited: /var/ssl/trustedcerts holds no certificate under a hashed name; put the roots that are to be "
        "trusted there, and run 'openssl rehash' on it",
        lineOf("trust store"));
    std::ofstream(std::string(trustStore) + "/0123abcd.0") << "";
    std::ofstream(std::string(trustStore) + "/0123abcd.1") << "";
    EXPECT_EQ("ok: /var/ssl/trustedcerts holds 2", lineOf("trust store"));
}

TEST_F(DoctorFolderTest, TrustStoreThatOthersMayChangeIsUnsafe)
{
    std::filesystem::create_directories(trustStore);
    ASSERT_EQ(0, chmod(trustStore, 0777));
    EXPECT_EQ(1, doctor().status);
    EXPECT_EQ(
        "unsafe: /var/ssl/trustedcerts belongs to user 0 and has mode 777; only root may decide who is trusted: chown "
        "root, chmod 755, and check its content",
        lineOf("trust store"));
}

}  // namespace
