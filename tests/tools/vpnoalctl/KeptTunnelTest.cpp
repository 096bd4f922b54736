// SPDX-License-Identifier: Apache-2.0
#include "tunnel/KeptTunnel.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "CommandError.h"
#include "FailingSetenv.h"

namespace vpnoalctl {

namespace {

std::string kept()
{
    const char* const value = std::getenv("VKNETCONFIG_KEEP");
    return value != nullptr ? value : "";
}

TEST(KeptTunnelTest, KeepsInterfaceGuardAndFilterWhileItLives)
{
    {
        const KeptTunnel tunnel;
        EXPECT_EQ("interface-norvatun0,guard-norvatun0,firewall-vpn.vpnoal", kept());
    }
    EXPECT_EQ("", kept());
}

TEST(KeptTunnelTest, KeepsAPartOfThem)
{
    {
        const KeptTunnel tunnel(KeptTunnel::Part::GuardAndFilter);
        EXPECT_EQ("guard-norvatun0,firewall-vpn.vpnoal", kept());
    }
    {
        const KeptTunnel tunnel(KeptTunnel::Part::Guard);
        EXPECT_EQ("guard-norvatun0", kept());
    }
    EXPECT_EQ("", kept());
}

TEST(KeptTunnelTest, WithoutMemoryNothingGoesOn)
{
    testsupport::setenvHasMemory = false;
    EXPECT_THROW(const KeptTunnel tunnel, CommandError);
    testsupport::setenvHasMemory = true;
}

TEST(KeptTunnelTest, WithoutMemoryAtTheEndNothingIsKeptAnyMore)
{
    {
        const KeptTunnel tunnel;
        testsupport::setenvHasMemory = false;
    }
    testsupport::setenvHasMemory = true;
    EXPECT_EQ("", kept());
}

}  // namespace

}  // namespace vpnoalctl
