// SPDX-License-Identifier: Apache-2.0
//
// A fault of the verifier only ever refuses. Each allocation of OpenSSL fails, and each call that reads the trusted
// directory: once, a few times, and from then on. The verdict stays what it is without a fault, or is a refusal.
#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <limits>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeVkLog.h"
#include "KernelFaults.h"

namespace {

using testsupport::CertificateOptions;
using testsupport::Identity;
using testsupport::KernelCall;
using testsupport::makeIdentity;

// Every allocation fails in turn; under a sanitizer, which takes long, a sample.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long allocationStep = 50;
#else
constexpr long allocationStep = 1;
#endif

// Accepted chains make far more allocations: a sample of them, unless the environment asks for all.
long stepOfAcceptedChains()
{
    return std::getenv("EVERY_ALLOCATION") != nullptr ? allocationStep : 10 * allocationStep;
}

constexpr long always = std::numeric_limits<long>::max();

// The allocations sFirst to sFirst + sCount - 1 fail.
long sAllocations = 0;
long sFirst = 0;
long sCount = 0;

bool mayAllocate()
{
    ++sAllocations;
    return sAllocations < sFirst || sAllocations - sFirst >= sCount;
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

enum class Verdict { Accept, Ask, Refuse };

std::ostream& operator<<(std::ostream& stream, Verdict verdict)
{
    static const char* const names[] = {"accept", "ask", "refuse"};
    return stream << names[static_cast<int>(verdict)];
}

struct Chain {
    std::string name;
    Verdict verdict;  // without a fault
    Identity server;
    std::vector<Identity> sent;
    std::vector<Identity> installed;
    std::vector<Identity> distrusted;
};

Identity copyOf(const Identity& identity)
{
    return {X509Ptr(X509_dup(identity.certificate.get())), nullptr};
}

void addUnknownCriticalExtension(const Identity& server, const Identity& issuer)
{
    const OpenSslPtr<ASN1_OBJECT, ASN1_OBJECT_free> type(OBJ_txt2obj("1.2.3.4.5", 1));
    const OpenSslPtr<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> value(ASN1_OCTET_STRING_new());
    const OpenSslPtr<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509_EXTENSION_create_by_OBJ(nullptr, type.get(), 1, value.get()));
    X509_add_ext(server.certificate.get(), extension.get(), -1);
    testsupport::signAgain(server.certificate.get(), issuer.key.get());
}

Identity withBadSignature(const Identity& server)
{
    std::vector<unsigned char> der = server.der();
    der.back() ^= 1;
    const unsigned char* position = der.data();
    return {X509Ptr(d2i_X509(nullptr, &position, static_cast<long>(der.size()))), nullptr};
}

// The chains of one root. Most servers have a subject that is installed, and the name that is asked for: then nothing
// but the chain itself stands against accepting.
class Chains {
public:
    std::vector<Chain> make()
    {
        addChainsOfAnInstalledRoot();
        addDistrustedCertificates();
        addChainsOfNoInstalledRoot();
        addSelfSignedServers();
        return std::move(mChains);
    }

private:
    Chain& add(const char* name, Verdict verdict, Identity server)
    {
        mChains.push_back({name, verdict, std::move(server), {}, {}, {}});
        mChains.back().installed.push_back(makeIdentity({"vpn.example", 5}));
        return mChains.back();
    }

    Chain& addWithRoot(const char* name, Verdict verdict, Identity server)
    {
        Chain& chain = add(name, verdict, std::move(server));
        chain.installed.push_back(copyOf(mRoot));
        return chain;
    }

    void addChainsOfAnInstalledRoot()
    {
        CertificateOptions expired{"vpn.example", 6};
        expired.notAfter = -60;
        addWithRoot("expired", Verdict::Refuse, makeIdentity(expired, &mRoot));
        CertificateOptions clientOnly{"vpn.example", 6};
        clientOnly.extendedKeyUsage = "clientAuth";
        addWithRoot("wrong purpose", Verdict::Ask, makeIdentity(clientOnly, &mRoot));
        addWithRoot("wrong purpose, root sent", Verdict::Ask, makeIdentity(clientOnly, &mRoot))
            .sent.push_back(copyOf(mRoot));
        Identity critical = makeIdentity({"vpn.example", 6}, &mRoot);
        addUnknownCriticalExtension(critical, mRoot);
        addWithRoot("unknown critical extension, root sent", Verdict::Refuse, std::move(critical))
            .sent.push_back(copyOf(mRoot));
        addWithRoot("bad signature, root sent", Verdict::Refuse,
                    withBadSignature(makeIdentity({"vpn.example", 6}, &mRoot)))
            .sent.push_back(copyOf(mRoot));
        Identity notCa = makeIdentity({"Not A CA", 3, false, ""}, &mRoot);
        addWithRoot("issuer is no CA", Verdict::Ask, makeIdentity({"vpn.example", 6}, &notCa))
            .sent.push_back(std::move(notCa));
        Identity issuer = makeIdentity({"Intermediate", 4, true}, &mRoot);
        addWithRoot("good", Verdict::Accept, makeIdentity({"vpn.example", 6}, &issuer))
            .sent.push_back(std::move(issuer));
    }

    void addDistrustedCertificates()
    {
        Chain& byRoot = add("distrusted root, sent", Verdict::Refuse, makeIdentity({"vpn.example", 6}, &mRoot));
        byRoot.sent.push_back(copyOf(mRoot));
        byRoot.distrusted.push_back(copyOf(mRoot));
        Identity server = makeIdentity({"vpn.example", 6});
        Chain& alone = add("distrusted self-signed server", Verdict::Refuse, copyOf(server));
        alone.installed.clear();
        alone.distrusted.push_back(std::move(server));
    }

    void addChainsOfNoInstalledRoot()
    {
        addWithRoot("unknown issuer", Verdict::Refuse, makeIdentity({"vpn.example", 6}, &mUnknownRoot));
        addWithRoot("unknown issuer, nothing installed", Verdict::Ask,
                    makeIdentity({"other.example", 6}, &mUnknownRoot))
            .installed.erase(mChains.back().installed.begin());
        add("unknown root, sent", Verdict::Accept, makeIdentity({"vpn.example", 6}, &mUnknownRoot))
            .sent.push_back(copyOf(mUnknownRoot));
    }

    void addSelfSignedServers()
    {
        add("self-signed, not installed", Verdict::Ask, makeIdentity({"other.example", 6}));
        add("self-signed, subject installed", Verdict::Accept, makeIdentity({"vpn.example", 6}));
        Identity server = makeIdentity({"vpn.example", 6});
        add("self-signed, installed after one of the same subject", Verdict::Accept, copyOf(server))
            .installed.push_back(std::move(server));
    }

    Identity mRoot = makeIdentity({"Test Root", 1, true});
    Identity mUnknownRoot = makeIdentity({"Unknown Root", 2, true});
    std::vector<Chain> mChains;
};

void install(const Chain& chain)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    std::filesystem::create_directories("/var/ssl/trustedcerts");
    for (const Identity& identity : chain.installed)
        testsupport::installTrusted(identity);
    for (const Identity& identity : chain.distrusted)
        testsupport::installDistrusted(identity);
}

// A chain as the agent hands it over.
class Handshake {
public:
    explicit Handshake(const Chain& chain) : mServer(chain.server.der())
    {
        for (const Identity& identity : chain.sent)
            mSent.push_back(identity.der());
    }

    Verdict judge() const
    {
        CertificateInterface judge;
        for (const auto& der : mSent)
            judge.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
        bool promptUser = false;
        const PluginResult result = judge.VerifyServerCertificate(mServer.data(), static_cast<unsigned>(mServer.size()),
                                                                  "vpn.example", promptUser);
        if (result != PLUGIN_SUCCESS) return Verdict::Refuse;
        return promptUser ? Verdict::Ask : Verdict::Accept;
    }

    Verdict judgeFailingAllocations(long first, long count) const
    {
        sAllocations = 0;
        sFirst = first;
        sCount = count;
        const Verdict verdict = judge();
        sCount = 0;
        return verdict;
    }

private:
    std::vector<unsigned char> mServer;
    std::vector<std::vector<unsigned char>> mSent;
};

struct Tally {
    long runs = 0;
    long struck = 0;
    long accepted = 0;  // wrongly
    long asked = 0;     // instead of a refusal

    void add(Verdict expected, Verdict verdict)
    {
        ++runs;
        if (verdict == expected) return;
        ++struck;
        if (verdict == Verdict::Accept) ++accepted;
        if (verdict == Verdict::Ask) ++asked;
    }
};

void expectOnlyRefusals(const Chain& chain, const Tally& tally, const char* what)
{
    std::cout << chain.name << ": " << tally.runs << " runs with " << what << ", " << tally.struck
              << " other verdicts, " << tally.accepted << " wrongly accepted, " << tally.asked << " wrongly asked\n"
              << std::flush;
    EXPECT_EQ(0, tally.accepted) << chain.name;
    EXPECT_EQ(0, tally.asked) << chain.name;
}

// `step` is 1 where every allocation fails, and more where a sample of them does.
void failAllocations(const Chain& chain, long step)
{
    install(chain);
    const Handshake handshake(chain);
    ASSERT_EQ(chain.verdict, handshake.judge()) << chain.name;  // also warms up what is allocated once
    ASSERT_EQ(chain.verdict, handshake.judgeFailingAllocations(0, 0)) << chain.name;
    const long total = sAllocations;
    ASSERT_LT(400, total) << chain.name;  // 1,000 and more before OpenSSL 3.5
    Tally tally;
    for (long at = 1; at <= total; at += step) {
        for (const long count : {1L, always})
            tally.add(chain.verdict, handshake.judgeFailingAllocations(at, count));
    }
    EXPECT_EQ(chain.verdict, handshake.judge()) << chain.name;
    expectOnlyRefusals(chain, tally, "failing allocations");
}

void failEveryCall(const Chain& chain)
{
    install(chain);
    const Handshake handshake(chain);
    Tally tally;
    for (const auto& [call, error] : {std::pair{KernelCall::Open, EMFILE}, std::pair{KernelCall::Open, ENOENT},
                                      std::pair{KernelCall::Read, EIO}, std::pair{KernelCall::Status, EIO}}) {
        testsupport::failKernelCalls(call, 0, 0, error);
        ASSERT_EQ(chain.verdict, handshake.judge()) << chain.name;
        const long total = testsupport::endKernelFaults();
        for (long at = 1; at <= total; ++at) {
            for (const long count : {1L, 2L, 3L, 4L, 5L, 6L, always}) {
                testsupport::failKernelCalls(call, at, count, error);
                tally.add(chain.verdict, handshake.judge());
                testsupport::endKernelFaults();
            }
        }
    }
    EXPECT_LT(0, tally.runs) << chain.name;
    expectOnlyRefusals(chain, tally, "failing calls");
}

// One test a chain, so that they run side by side.
class VerifierFaultTest : public testing::TestWithParam<const char*> {
protected:
    // Small keys: the parsing of certificates is what allocates, and big ones only take time.
    static void SetUpTestSuite()
    {
        testsupport::rsaKeyBits = 512;
        fakes::logContext().level = 2;
    }

    void SetUp() override
    {
        const auto found =
            std::find_if(mChains.begin(), mChains.end(), [](const Chain& chain) { return chain.name == GetParam(); });
        ASSERT_NE(mChains.end(), found);
        mpChain = &*found;
    }

    const std::vector<Chain> mChains = Chains().make();
    const Chain* mpChain = nullptr;
};

TEST_P(VerifierFaultTest, FailingAllocationsOnlyEverRefuse)
{
    ASSERT_TRUE(sIsHooked);
    failAllocations(*mpChain, mpChain->verdict == Verdict::Accept ? stepOfAcceptedChains() : allocationStep);
}

TEST_P(VerifierFaultTest, FailingReadsOfTheTrustedDirectoryOnlyEverRefuse)
{
    if (!testsupport::canCatchKernelCalls) GTEST_SKIP() << "system calls are caught on x86-64 only";
    static const std::string reason = testsupport::catchKernelCalls();
    ASSERT_EQ("", reason);
    failEveryCall(*mpChain);
}

constexpr const char* chainNames[] = {
    "expired",
    "wrong purpose",
    "wrong purpose, root sent",
    "unknown critical extension, root sent",
    "bad signature, root sent",
    "issuer is no CA",
    "good",
    "distrusted root, sent",
    "distrusted self-signed server",
    "unknown issuer",
    "unknown issuer, nothing installed",
    "unknown root, sent",
    "self-signed, not installed",
    "self-signed, subject installed",
    "self-signed, installed after one of the same subject",
};

// Letters alone, each word with a capital.
std::string testNameOf(const testing::TestParamInfo<const char*>& info)
{
    std::string name;
    bool isNewWord = true;
    for (const char* position = info.param; *position != '\0'; ++position) {
        const auto character = static_cast<unsigned char>(*position);
        if (std::isalpha(character) != 0) name += static_cast<char>(isNewWord ? std::toupper(character) : character);
        isNewWord = std::isalpha(character) == 0;
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Chains, VerifierFaultTest, testing::ValuesIn(chainNames), testNameOf);

TEST(VerifierFaultChainsTest, EachChainHasItsTests)
{
    testsupport::rsaKeyBits = 512;
    std::vector<std::string> names;
    for (const Chain& chain : Chains().make())
        names.push_back(chain.name);
    EXPECT_EQ(std::vector<std::string>(std::begin(chainNames), std::end(chainNames)), names);
}

}  // namespace
