// SPDX-License-Identifier: Apache-2.0
//
// What the certificate interface logs of its life and of the intermediates it collects.
#include "CertificateInterface.h"

#include <gmock/gmock.h>

#include "CertificateAuthority.h"
#include "FakeVkLog.h"

namespace {

using fakes::LogLine;
using testing::ElementsAre;

TEST(CertificateInterfaceTest, CollectingIntermediatesIsTraced)
{
    const auto der = testsupport::makeIdentity({"Test Root", 1, true}).der();
    CertificateInterface interface;
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_SUCCESS, interface.AddVerificationCert(der.data(), static_cast<unsigned>(der.size())));
    EXPECT_EQ(PLUGIN_SUCCESS, interface.AddVerificationCert(nullptr, 0));
    EXPECT_EQ(PLUGIN_SUCCESS, interface.ClearVerificationCertificates());
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{7, "CertificateInterface::AddVerificationCert: Called!"},
                                               LogLine{7, "CertificateInterface::AddVerificationCert: Called!"},
                                               LogLine{7,
                                                       "CertificateInterface::ClearVerificationCertificates: "
                                                       "Called!"}));
}

TEST(CertificateInterfaceTest, DestructionIsTracedAndConstructionIsNot)
{
    fakes::clearLog();
    {
        const CertificateInterface interface;
        EXPECT_THAT(fakes::logLines(), ElementsAre());
    }
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{7, "CertificateInterface::~CertificateInterface called"}));
}

}  // namespace
