// SPDX-License-Identifier: Apache-2.0
//
// An installation that runs out of memory, at each of its allocations: the answer is whole or there is none, and there
// is never a certificate without its key, nor a key without its certificate.
#include <gmock/gmock.h>

#include <filesystem>
#include <new>
#include <set>

#include "AddCertificate.h"
#include "AllocationFaults.h"
#include "CertificateAuthority.h"
#include "CertificateStore.h"

namespace {

namespace fs = std::filesystem;
using faults::AllocationFault;
using faults::NoFault;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";
constexpr char request[] = R"({"certificateFilename":"/tmp/bundle.pfx","passphrase":"secret"})";
constexpr char installed[] = R"({ "returnValue": true })";
constexpr int moreThanThereAre = 100'000;  // allocations

std::multiset<std::string> namesIn(const std::string& folder)
{
    std::multiset<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        names.insert(entry.path().filename());
    return names;
}

/// A certificate's file has the key's name without "rsa".
std::multiset<std::string> certificatesOfKeys()
{
    std::multiset<std::string> names;
    for (const std::string& name : namesIn(keys))
        names.insert(name.rfind("rsa", 0) == 0 ? name.substr(3) : name);
    return names;
}

TEST(CertificateMemoryTest, InstallationIsWholeOrLeavesNothing)
{
    testsupport::writeFile("/tmp/bundle.pfx", testsupport::makeIdentity({"client", 4}).pkcs12("secret"));
    const certificatemanager::CertificateStore store(certificates, keys);
    fs::remove_all("/var/ssl");
    ASSERT_EQ(installed, certificatemanager::addCertificate(store, request));
    int refused = 0;
    int cutShort = 0;
    for (const bool isForEver : {false, true}) {
        bool hasStruck = true;
        // Each of the first allocations, and a sample of OpenSSL's many.
        for (int nth = 1; hasStruck && nth < moreThanThereAre; nth += 1 + nth / 100) {
            fs::remove_all("/var/ssl");
            std::string reply;
            {
                const AllocationFault fault(nth, isForEver);
                try {
                    reply = certificatemanager::addCertificate(store, request);
                } catch (const std::bad_alloc&) {
                    ++cutShort;  // the connection to the bus is made anew, and the caller gets an error
                }
                hasStruck = fault.hasStruck();
            }
            if (!reply.empty() && reply != installed) {
                ++refused;
                EXPECT_EQ(0u, reply.rfind(R"({ "returnValue": false, "errorCode": )", 0)) << nth << reply;
                EXPECT_NE(std::string::npos, reply.find(R"("errorText": ")")) << nth << reply;
            }
            EXPECT_EQ(namesIn(certificates), certificatesOfKeys()) << nth << reply;
            EXPECT_TRUE(reply != installed || namesIn(certificates).size() == 1) << nth;
            if (HasFailure()) return;
        }
        EXPECT_FALSE(hasStruck) << "allocations without end";
    }
    EXPECT_GT(refused, 10);
    EXPECT_GT(cutShort, 10);
}

TEST(CertificateMemoryTest, ReplyIsMadeWholeOrNotAtAll)
{
    using certificatemanager::InstallError;
    const certificatemanager::InstallResult failure{InstallError::NotStored,
                                                    "a reason that is long enough to allocate"};
    const std::string whole =
        R"({ "returnValue": false, "errorCode": 11, "errorText": "a reason that is long enough to allocate" })";
    ASSERT_EQ(whole, certificatemanager::replyText(failure));
    bool hasStruck = true;
    int nth = 1;
    for (; hasStruck && nth < 100; ++nth) {
        std::string reply = "none";
        const AllocationFault fault(nth, false);
        try {
            reply = certificatemanager::replyText(failure);
        } catch (const std::bad_alloc&) {
        }
        hasStruck = fault.hasStruck();
        const NoFault noFault;
        EXPECT_TRUE(reply == whole || (reply == "none" && hasStruck)) << nth << ": " << reply;
    }
    EXPECT_GT(nth, 5);
    EXPECT_FALSE(hasStruck);
}

}  // namespace
