// SPDX-License-Identifier: Apache-2.0
//
// Running out of memory anywhere inside OpenSSL never turns a refused chain into an accepted one. A sample of all
// allocations fails here, once and from then on; WFOAL_EXHAUSTIVE=1 in the environment fails every one of them.
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeVkLog.h"

namespace {

using testsupport::CertificateOptions;
using testsupport::Identity;
using testsupport::installTrusted;
using testsupport::makeIdentity;

enum class Failing { Never, Once, FromThenOn };

Failing sFailing = Failing::Never;
long sAllocations = 0;
long sFailAt = 0;

bool mayAllocate()
{
    ++sAllocations;
    if (sFailing == Failing::Once) return sAllocations != sFailAt;
    if (sFailing == Failing::FromThenOn) return sAllocations < sFailAt;
    return true;
}

void* allocate(std::size_t size, const char*, int)
{
    return mayAllocate() ? std::malloc(size) : nullptr;
}

void* reallocate(void* block, std::size_t size, const char*, int)
{
    return mayAllocate() ? std::realloc(block, size) : nullptr;
}

void release(void* block, const char*, int)
{
    std::free(block);
}

// OpenSSL takes other functions only before its first allocation.
const bool sIsHooked = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;

struct Case {
    const char* name;
    Identity server;
    std::vector<Identity> intermediates;
};

std::vector<Case> refusedChains(const Identity& root, const Identity& unknownRoot)
{
    std::vector<Case> cases;
    CertificateOptions expired{"vpn.example", 6};
    expired.notAfter = -60;
    cases.push_back({"expired", makeIdentity(expired, &root), {}});
    CertificateOptions wrongPurpose{"vpn.example", 6};
    wrongPurpose.extendedKeyUsage = "clientAuth";
    cases.push_back({"wrong purpose", makeIdentity(wrongPurpose, &root), {}});
    cases.push_back({"unknown issuer, subject installed", makeIdentity({"vpn.example", 6}, &unknownRoot), {}});
    cases.push_back({"unknown issuer, nothing installed", makeIdentity({"other.example", 6}, &unknownRoot), {}});
    Case notCa{"issuer is no CA", {}, {}};
    notCa.intermediates.push_back(makeIdentity({"Not A CA", 3, false, ""}, &root));
    notCa.server = makeIdentity({"vpn.example", 6}, &notCa.intermediates[0]);
    cases.push_back(std::move(notCa));
    return cases;
}

bool isAccepted(const Case& one)
{
    CertificateInterface judge;
    for (const Identity& intermediate : one.intermediates) {
        const auto der = intermediate.der();
        judge.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
    }
    const std::vector<unsigned char> der = one.server.der();
    bool promptUser = false;
    const PluginResult result =
        judge.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()), "vpn.example", promptUser);
    return result == PLUGIN_SUCCESS && !promptUser;
}

bool isAcceptedFailing(const Case& one, Failing failing, long at)
{
    sFailAt = at;
    sAllocations = 0;
    sFailing = failing;
    const bool accepted = isAccepted(one);
    sFailing = Failing::Never;
    ERR_clear_error();
    return accepted;
}

TEST(VerifierFaultTest, FailingAllocationsNeverAcceptARefusedChain)
{
    ASSERT_TRUE(sIsHooked);
    fakes::logContext().level = 2;
    std::filesystem::create_directories("/var/ssl/trustedcerts");
    const Identity root = makeIdentity({"Test Root", 1, true});
    const Identity unknownRoot = makeIdentity({"Unknown Root", 2, true});
    installTrusted(root);
    installTrusted(makeIdentity({"vpn.example", 5}));
    const long samples = std::getenv("WFOAL_EXHAUSTIVE") != nullptr ? 1000000 : 60;

    long runs = 0;
    for (const Case& one : refusedChains(root, unknownRoot)) {
        ASSERT_FALSE(isAccepted(one)) << one.name;  // also warms up what is allocated once
        ASSERT_FALSE(isAcceptedFailing(one, Failing::Never, 0)) << one.name;
        const long total = sAllocations;
        ASSERT_GT(total, 100) << one.name;
        for (long at = 1; at <= total; at += 1 + total / samples) {
            EXPECT_FALSE(isAcceptedFailing(one, Failing::Once, at)) << one.name << ", allocation " << at;
            EXPECT_FALSE(isAcceptedFailing(one, Failing::FromThenOn, at)) << one.name << ", from allocation " << at;
            runs += 2;
        }
        EXPECT_FALSE(isAccepted(one)) << one.name;
    }
    std::cout << runs << " runs with failing allocations, none accepted\n";
}

}  // namespace
