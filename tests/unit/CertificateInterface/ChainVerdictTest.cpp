// SPDX-License-Identifier: Apache-2.0
#include "CertificateInterface/ChainVerdict.h"

#include <gmock/gmock.h>
#include <openssl/x509_vfy.h>

#include <set>

namespace {

using wfoal::ChainVerdict;
using wfoal::chainVerdict;

const std::set<int> asking = {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, X509_V_ERR_CERT_NOT_YET_VALID,
                              X509_V_ERR_CERT_HAS_EXPIRED,          X509_V_ERR_INVALID_CA,
                              X509_V_ERR_INVALID_PURPOSE,           X509_V_ERR_CERT_UNTRUSTED};

TEST(ChainVerdictTest, SixConditionsAskTheUser)
{
    for (const int error : asking)
        EXPECT_EQ(ChainVerdict::AskUser, chainVerdict(error)) << error;
}

TEST(ChainVerdictTest, SelfSignedCertificatesAreTheirOwnClasses)
{
    EXPECT_EQ(ChainVerdict::SelfSignedInChain, chainVerdict(19));
    EXPECT_EQ(ChainVerdict::SelfSignedServer, chainVerdict(18));
}

TEST(ChainVerdictTest, InvalidCaAsksUnderTodaysNumberAndTheOldNumberRefuses)
{
    EXPECT_EQ(79, X509_V_ERR_INVALID_CA);
    EXPECT_EQ(ChainVerdict::AskUser, chainVerdict(79));
    EXPECT_EQ(ChainVerdict::Refuse, chainVerdict(24));
}

TEST(ChainVerdictTest, EveryOtherCodeRefuses)
{
    for (int error = -2; error < 300; ++error) {
        if (asking.count(error) != 0 || error == 18 || error == 19) continue;
        EXPECT_EQ(ChainVerdict::Refuse, chainVerdict(error)) << error;
    }
}

}  // namespace
