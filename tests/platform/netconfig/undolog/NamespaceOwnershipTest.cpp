// SPDX-License-Identifier: Apache-2.0
//
// Network namespaces that share /run: an interface or a filter of one never touches its namesake in another, also when
// the kernel gives the inode of an ended namespace to a new one.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>

#include "Driver.h"
#include "KernelState.h"
#include "RunningDriver.h"

using namespace testsupport;
using testing::HasSubstr;

namespace {

class NamespaceOwnershipTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::ofstream("/tmp/request.json") << R"({"ifName":"vpn0","ipv4":{"ip":"0x0200080a","netmask":"0x00ffffff",
            "additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0"}]}})";
        std::ofstream("/tmp/filter.json") << R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[]})";
        std::ofstream("/tmp/no-filter.json") << R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
    }
    void TearDown() override { outputOf("for n in one two; do ip netns del $n; done"); }

    // A namespace with an interface "vpn0" that is down.
    static void makeNamespace(const std::string& name)
    {
        run("ip netns add " + name + " && ip -n " + name + " link add vpn0 type veth peer name peer0 && ip -n " + name +
            " link set vpn0 addrgenmode none");
    }
    static std::string in(const std::string& name, const std::string& command)
    {
        return outputOf("ip netns exec " + name + " " + command);
    }
    static std::string stateOf(const std::string& name)
    {
        return in(name, "sh -c 'ip -d link; ip -d address; ip -d -4 route show table all; nft list ruleset'");
    }
    static ino_t inodeOf(const std::string& name)
    {
        struct stat status {};
        return stat(("/run/netns/" + name).c_str(), &status) == 0 ? status.st_ino : 0;
    }
    static std::vector<std::string> within(const std::string& name) { return {"ip", "netns", "exec", name}; }
};

}  // namespace

TEST_F(NamespaceOwnershipTest, NamesakesInTwoNamespacesAreIndependentWhileTheirOwnersLive)
{
    makeNamespace("one");
    makeNamespace("two");
    const std::string before = stateOf("two");
    const std::vector<std::string> steps = {"firewall", "/tmp/filter.json", "add", "/tmp/request.json"};
    RunningDriver first(steps, {}, within("one"));
    const std::string inForce = stateOf("one");
    RunningDriver second(steps, {"delete", "vpn0", "firewall", "/tmp/no-filter.json"}, within("two"));
    EXPECT_EQ(second.output().find("[3]"), std::string::npos) << second.output();
    EXPECT_THAT(stateOf("two"), HasSubstr("192.168.0.0/16"));
    EXPECT_THAT(stateOf("two"), HasSubstr("vpn.vpnoal"));
    EXPECT_EQ(second.finish(), 0);
    EXPECT_EQ(stateOf("two"), before);
    EXPECT_EQ(stateOf("one"), inForce);
}

TEST_F(NamespaceOwnershipTest, NamesakesInTwoNamespacesAreCleanedUpEachInItsOwn)
{
    makeNamespace("one");
    makeNamespace("two");
    const std::string before = stateOf("one");
    const std::string beforeInTwo = stateOf("two");
    const std::string steps = "firewall /tmp/filter.json add /tmp/request.json";
    const std::string cleanUp = "delete nothing0 firewall /tmp/no-filter.json";
    in("one", driver(steps));
    const std::string left = stateOf("one");
    in("two", driver(steps));
    in("two", driver("delete vpn0 firewall /tmp/no-filter.json"));
    EXPECT_EQ(stateOf("one"), left);
    EXPECT_EQ(stateOf("two"), beforeInTwo);
    in("one", driver(cleanUp));
    EXPECT_EQ(stateOf("one"), before);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(NamespaceOwnershipTest, AProcessCleansUpInANamespaceThatItEntersLater)
{
    makeNamespace("one");
    makeNamespace("two");
    const std::string before = stateOf("one");
    in("one", driver("firewall /tmp/filter.json add /tmp/request.json"));
    const std::string left = stateOf("one");
    ASSERT_NE(left, before);
    // The agent cleans up where it begins, and installs a configuration of the same names there.
    RunningDriver agent({"firewall", "/tmp/filter.json", "add", "/tmp/request.json"},
                        {"enter", "/run/netns/one", "delete", "nothing0"}, within("two"));
    const std::string installed = stateOf("two");
    EXPECT_EQ(stateOf("one"), left) << "the agent is not there yet";
    EXPECT_EQ(agent.finish(), 0);
    EXPECT_EQ(stateOf("one"), before);
    EXPECT_EQ(stateOf("two"), installed);
}

TEST_F(NamespaceOwnershipTest, ANewNamespaceWithTheInodeOfAnEndedOneIsNotTouched)
{
    // The kernel hands out the lowest free number, and frees those of an ended namespace a little later. So it may take
    // a few namespaces until the number comes again; one that other programs have left may never come again.
    bool isSameInode = false;
    for (int namespaces = 0; !isSameInode; ++namespaces) {
        if (namespaces == 20) GTEST_SKIP() << "the kernel does not use the inode of an ended namespace again";
        makeNamespace("one");
        const ino_t inode = inodeOf("one");
        in("one", driver("add /tmp/request.json"));
        ASSERT_THAT(stateOf("one"), HasSubstr("192.168.0.0/16"));
        for (int tries = 0; tries < 10 && !isSameInode; ++tries) {
            run("ip netns del one && sleep 0.02");
            makeNamespace("one");
            isSameInode = inodeOf("one") == inode;
        }
        if (!isSameInode) run("ip netns del one");
    }
    // Another agent's configuration of an interface with the same name and index.
    run("ip -n one address add 10.8.0.2/24 dev vpn0 && ip -n one link set vpn0 up && "
        "ip -n one route add 192.168.0.0/16 dev vpn0 proto 119");
    const std::string theirs = stateOf("one");
    in("one", driver("delete nothing0"));
    EXPECT_EQ(stateOf("one"), theirs);
    in("one", driver("delete vpn0"));
    EXPECT_EQ(stateOf("one"), theirs);
}

TEST_F(NamespaceOwnershipTest, AnInterfaceThatHasTheIndexAndAnotherNameIsNotTouched)
{
    makeNamespace("one");
    in("one", driver("add /tmp/request.json"));
    // An interface goes, and one of another name comes by its index.
    const std::string index = in("one", "cat /sys/class/net/vpn0/ifindex");
    run("ip -n one link del vpn0");
    run("ip -n one link add name other0 index " + std::to_string(std::stoi(index)) + " type veth peer name otherpeer0");
    run("ip -n one address add 10.8.0.2/24 dev other0 && ip -n one link set other0 up && "
        "ip -n one route add 192.168.0.0/16 dev other0 proto 119");
    const std::string theirs = stateOf("one");
    in("one", driver("delete vpn0"));
    EXPECT_EQ(stateOf("one"), theirs);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}
