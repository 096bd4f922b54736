// SPDX-License-Identifier: Apache-2.0
//
// What the verifier says and answers when a call of OpenSSL fails that never fails on its own.
#include <gmock/gmock.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <filesystem>
#include <map>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FailingNew.h"
#include "FakeVkLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::Identity;
using testsupport::installTrusted;
using testsupport::makeIdentity;

std::map<std::string, int> sCallsLeft;  // until the one that fails
constexpr int always = -1;              // from now on

bool failsNow(const char* call)
{
    const auto found = sCallsLeft.find(call);
    if (found == sCallsLeft.end() || found->second == 0) return false;
    return found->second == always || --found->second == 0;
}

}  // namespace

// The linker sends calls of NAME to __wrap_NAME, and those of __real_NAME to the library.
extern "C" {

int __real_OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS* settings);
X509_STORE* __real_X509_STORE_new();
X509_STORE_CTX* __real_X509_STORE_CTX_new();
int __real_X509_STORE_CTX_init(X509_STORE_CTX* context, X509_STORE* store, X509* target, STACK_OF(X509) * untrusted);
int __real_X509_STORE_CTX_set_purpose(X509_STORE_CTX* context, int purpose);
int __real_X509_STORE_load_locations(X509_STORE* store, const char* file, const char* directory);
OPENSSL_STACK* __real_OPENSSL_sk_new_null();
int __real_OPENSSL_sk_push(OPENSSL_STACK* stack, const void* element);
int __real_X509_LOOKUP_meth_set_get_by_subject(X509_LOOKUP_METHOD* method, X509_LOOKUP_get_by_subject_fn function);
int __real_X509_LOOKUP_set_method_data(X509_LOOKUP* lookup, void* data);
int __real_X509_STORE_lock(X509_STORE* store);
int __real_X509_OBJECT_set1_X509(X509_OBJECT* object, X509* certificate);
int __real_X509_STORE_add_cert(X509_STORE* store, X509* certificate);
BIO* __real_BIO_new_fp(std::FILE* file, int closes);

int __wrap_OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS* settings);
X509_STORE* __wrap_X509_STORE_new();
X509_STORE_CTX* __wrap_X509_STORE_CTX_new();
int __wrap_X509_STORE_CTX_init(X509_STORE_CTX* context, X509_STORE* store, X509* target, STACK_OF(X509) * untrusted);
int __wrap_X509_STORE_CTX_set_purpose(X509_STORE_CTX* context, int purpose);
int __wrap_X509_STORE_load_locations(X509_STORE* store, const char* file, const char* directory);
OPENSSL_STACK* __wrap_OPENSSL_sk_new_null();
int __wrap_OPENSSL_sk_push(OPENSSL_STACK* stack, const void* element);
int __wrap_X509_LOOKUP_meth_set_get_by_subject(X509_LOOKUP_METHOD* method, X509_LOOKUP_get_by_subject_fn function);
int __wrap_X509_LOOKUP_set_method_data(X509_LOOKUP* lookup, void* data);
int __wrap_X509_STORE_lock(X509_STORE* store);
int __wrap_X509_OBJECT_set1_X509(X509_OBJECT* object, X509* certificate);
int __wrap_X509_STORE_add_cert(X509_STORE* store, X509* certificate);
BIO* __wrap_BIO_new_fp(std::FILE* file, int closes);

int __wrap_OPENSSL_init_ssl(uint64_t options, const OPENSSL_INIT_SETTINGS* settings)
{
    return failsNow("OPENSSL_init_ssl") ? 0 : __real_OPENSSL_init_ssl(options, settings);
}

X509_STORE* __wrap_X509_STORE_new()
{
    return failsNow("X509_STORE_new") ? nullptr : __real_X509_STORE_new();
}

X509_STORE_CTX* __wrap_X509_STORE_CTX_new()
{
    return failsNow("X509_STORE_CTX_new") ? nullptr : __real_X509_STORE_CTX_new();
}

int __wrap_X509_STORE_CTX_init(X509_STORE_CTX* context, X509_STORE* store, X509* target, STACK_OF(X509) * untrusted)
{
    return failsNow("X509_STORE_CTX_init") ? 0 : __real_X509_STORE_CTX_init(context, store, target, untrusted);
}

int __wrap_X509_STORE_CTX_set_purpose(X509_STORE_CTX* context, int purpose)
{
    return failsNow("X509_STORE_CTX_set_purpose") ? 0 : __real_X509_STORE_CTX_set_purpose(context, purpose);
}

int __wrap_X509_STORE_load_locations(X509_STORE* store, const char* file, const char* directory)
{
    return failsNow("X509_STORE_load_locations") ? 0 : __real_X509_STORE_load_locations(store, file, directory);
}

OPENSSL_STACK* __wrap_OPENSSL_sk_new_null()
{
    return failsNow("OPENSSL_sk_new_null") ? nullptr : __real_OPENSSL_sk_new_null();
}

int __wrap_OPENSSL_sk_push(OPENSSL_STACK* stack, const void* element)
{
    return failsNow("OPENSSL_sk_push") ? 0 : __real_OPENSSL_sk_push(stack, element);
}

int __wrap_X509_LOOKUP_meth_set_get_by_subject(X509_LOOKUP_METHOD* method, X509_LOOKUP_get_by_subject_fn function)
{
    return failsNow("X509_LOOKUP_meth_set_get_by_subject")
               ? 0
               : __real_X509_LOOKUP_meth_set_get_by_subject(method, function);
}

int __wrap_X509_LOOKUP_set_method_data(X509_LOOKUP* lookup, void* data)
{
    return failsNow("X509_LOOKUP_set_method_data") ? 0 : __real_X509_LOOKUP_set_method_data(lookup, data);
}

int __wrap_X509_STORE_lock(X509_STORE* store)
{
    return failsNow("X509_STORE_lock") ? 0 : __real_X509_STORE_lock(store);
}

int __wrap_X509_OBJECT_set1_X509(X509_OBJECT* object, X509* certificate)
{
    return failsNow("X509_OBJECT_set1_X509") ? 0 : __real_X509_OBJECT_set1_X509(object, certificate);
}

int __wrap_X509_STORE_add_cert(X509_STORE* store, X509* certificate)
{
    return failsNow("X509_STORE_add_cert") ? 0 : __real_X509_STORE_add_cert(store, certificate);
}

BIO* __wrap_BIO_new_fp(std::FILE* file, int closes)
{
    return failsNow("BIO_new_fp") ? nullptr : __real_BIO_new_fp(file, closes);
}

}  // extern "C"

namespace {

class VerifierErrorsTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        std::filesystem::create_directories("/var/ssl/trustedcerts");
        fakes::clearLog();
        sCallsLeft.clear();
    }

    void TearDown() override { sCallsLeft.clear(); }

    PluginResult add(const Identity& identity)
    {
        const std::vector<unsigned char> der = identity.der();
        return mInterface.AddVerificationCert(der.data(), static_cast<unsigned>(der.size()));
    }

    PluginResult verify(const Identity& server, bool& promptUser)
    {
        const std::vector<unsigned char> der = server.der();
        return mInterface.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()), "vpn.example",
                                                  promptUser);
    }

    // The nth call fails: refused with that line, the caller's prompt untouched, and the intermediates are dropped.
    void expectRefusal(const char* call, const char* line)
    {
        installTrusted(mRoot);
        const Identity intermediate = makeIdentity({"Intermediate", 3, true}, &mRoot);
        const Identity server = makeIdentity({"vpn.example", 6}, &intermediate);
        add(intermediate);
        fakes::clearLog();
        sCallsLeft[call] = 1;
        bool promptUser = true;
        EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser));
        EXPECT_TRUE(promptUser);
        EXPECT_EQ((std::vector<fakes::LogLine>{{3, line}}), fakes::logLines(3));
        promptUser = false;
        EXPECT_EQ(PLUGIN_SUCCESS, verify(server, promptUser));
        EXPECT_TRUE(promptUser) << "the intermediates are still there";
    }

    CertificateInterface mInterface;
    Identity mRoot = makeIdentity({"Test Root", 1, true});
};

TEST_F(VerifierErrorsTest, LibraryThatDoesNotStartIsLoggedAndConstructionGoesOn)
{
    sCallsLeft["OPENSSL_init_ssl"] = 1;
    CertificateInterface another;
    EXPECT_EQ((std::vector<fakes::LogLine>{{3, "CertificateInterface: openssl library initialization failed"}}),
              fakes::logLines(3));
    EXPECT_EQ(PLUGIN_SUCCESS, another.ClearVerificationCertificates());
}

TEST_F(VerifierErrorsTest, StoreThatCannotBeCreated)
{
    expectRefusal("X509_STORE_new", "VerifyServerCertificate: Failed to create X509_STORE object.");
}

TEST_F(VerifierErrorsTest, ContextThatCannotBeCreated)
{
    expectRefusal("X509_STORE_CTX_new", "VerifyServerCertificate: Failed to create X509_STORE_CTX object.");
}

TEST_F(VerifierErrorsTest, ContextThatCannotBeInitialised)
{
    expectRefusal("X509_STORE_CTX_init", "VerifyServerCertificate: Could not initialize X509_STORE_CTX.");
}

TEST_F(VerifierErrorsTest, DirectoryThatCannotBeLoadedIsLoggedAndTheCertificateRefused)
{
    installTrusted(mRoot);
    sCallsLeft["X509_STORE_load_locations"] = 1;
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_FAILURE, verify(makeIdentity({"vpn.example", 6}, &mRoot), promptUser));
    EXPECT_FALSE(promptUser);
    const std::vector<fakes::LogLine> expected = {
        {3, "VerifyServerCertificate: Failed to load trusted certs"},
        {3, "VerifyServerCertificate: Server Certificate verification failed: unable to get local issuer certificate"},
        {3, "VerifyServerCertificate: Server Certificate verification is not reliable"},
    };
    EXPECT_EQ(expected, fakes::logLines(3));
}

TEST_F(VerifierErrorsTest, PurposeThatCannotBeSetRefuses)
{
    installTrusted(mRoot);
    sCallsLeft["X509_STORE_CTX_set_purpose"] = 1;
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_FAILURE, verify(makeIdentity({"vpn.example", 6}, &mRoot), promptUser));
    EXPECT_FALSE(promptUser);
    const std::vector<fakes::LogLine> expected = {
        {3, "VerifyServerCertificate: Server Certificate verification failed: ok"},
        {3, "VerifyServerCertificate: Server Certificate verification is not reliable"},
    };
    EXPECT_EQ(expected, fakes::logLines(3));
}

// What would be asked about is refused when the second verification cannot be made.
TEST_F(VerifierErrorsTest, SecondVerificationThatFailsRefuses)
{
    const Identity server = makeIdentity({"other.example", 6});
    for (const char* call : {"X509_STORE_new", "X509_STORE_CTX_new", "X509_STORE_CTX_init"}) {
        bool promptUser = false;
        EXPECT_EQ(PLUGIN_SUCCESS, verify(server, promptUser));
        EXPECT_TRUE(promptUser);
        EXPECT_THAT(fakes::logLines(3), IsEmpty());
        sCallsLeft[call] = 2;
        EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser)) << call;
        EXPECT_FALSE(promptUser) << call;
        EXPECT_THAT(
            fakes::logLines(3),
            ElementsAre(fakes::LogLine{3, "VerifyServerCertificate: Server Certificate verification is not reliable"}));
        fakes::clearLog();
    }
}

// The user decides about an installed certificate that is for clients only, unless a step of finding it fails.
TEST_F(VerifierErrorsTest, SecondVerificationThatCannotLookUpRefuses)
{
    testsupport::CertificateOptions options{"vpn.example", 6};
    options.extendedKeyUsage = "clientAuth";
    const Identity server = makeIdentity(options);
    installTrusted(server);
    const auto verdict = [&] {
        bool promptUser = false;
        const PluginResult result = verify(server, promptUser);
        return std::pair<PluginResult, bool>(result, promptUser);
    };
    const std::pair<PluginResult, bool> asked(PLUGIN_SUCCESS, true);
    const std::pair<PluginResult, bool> refused(PLUGIN_FAILURE, false);
    for (const auto& [call, times] :
         {std::pair{"X509_LOOKUP_meth_set_get_by_subject", 1}, std::pair{"X509_LOOKUP_set_method_data", 1},
          std::pair{"BIO_new_fp", 1}, std::pair{"X509_STORE_add_cert", always}}) {
        EXPECT_EQ(asked, verdict()) << call;
        sCallsLeft[call] = times;
        EXPECT_EQ(refused, verdict()) << call;
        EXPECT_GE(0, sCallsLeft[call]) << call << " was not called";
        EXPECT_EQ((fakes::LogLine{3, "VerifyServerCertificate: Server Certificate verification is not reliable"}),
                  fakes::logLines(3).back())
            << call;
        sCallsLeft.clear();
    }
    // What was read, and could not be handed over, is found the next time.
    for (const char* call : {"X509_STORE_lock", "X509_OBJECT_set1_X509"}) {
        sCallsLeft[call] = 1;
        EXPECT_EQ(asked, verdict()) << call;
        EXPECT_EQ(0, sCallsLeft[call]) << call << " was not called";
    }
}

TEST_F(VerifierErrorsTest, SecondVerificationWithoutMemoryRefuses)
{
    const Identity server = makeIdentity({"other.example", 6});
    bool promptUser = false;
    testsupport::failingNew = sizeof "/var/ssl/trustedcerts/";  // its copy
    EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser));
    EXPECT_EQ(0u, testsupport::failingNew) << "nothing of that size was allocated";
    EXPECT_FALSE(promptUser);
    EXPECT_THAT(
        fakes::logLines(3),
        ElementsAre(fakes::LogLine{3, "VerifyServerCertificate: Server Certificate verification is not reliable"}));
}

TEST_F(VerifierErrorsTest, IntermediateThatCannotBeCopiedRefuses)
{
    const Identity server = makeIdentity({"other.example", 6});
    add(mRoot);
    sCallsLeft["OPENSSL_sk_push"] = 1;
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser));
    EXPECT_EQ(0, sCallsLeft["OPENSSL_sk_push"]) << "was not called";
    EXPECT_FALSE(promptUser);
}

TEST_F(VerifierErrorsTest, FileInPlaceOfTheDirectoryIsLogged)
{
    std::filesystem::remove_all("/var/ssl/trustedcerts");
    testsupport::writeFile("/var/ssl/trustedcerts", std::string("in the way"));
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_SUCCESS, verify(makeIdentity({"vpn.example", 6}), promptUser));
    EXPECT_TRUE(promptUser);
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "VerifyServerCertificate: Failed to load trusted certs"}));
}

TEST_F(VerifierErrorsTest, CertificateOfAFileThatCannotBeKeptIsLeftOut)
{
    testsupport::writeFile("/tmp/chain.pem", mRoot.keyPem() + mRoot.keyPem() + mRoot.pem() + mRoot.pem());
    for (const int kept : {2, 1}) {
        const X509StackPtr stack(sk_X509_new_null());
        EXPECT_TRUE(CertificateInterface::x509StackFromPEMFile("/tmp/chain.pem", stack.get()));
        EXPECT_EQ(kept, sk_X509_num(stack.get()));
        sCallsLeft["OPENSSL_sk_push"] = 1;
    }
}

// The second verification alone copies the path of the trusted directory.
TEST_F(VerifierErrorsTest, AfterASecondVerificationWithoutMemoryTheIntermediatesAreDropped)
{
    installTrusted(makeIdentity({"vpn.example", 5}));
    const Identity server = makeIdentity({"vpn.example", 6}, &mRoot);
    bool promptUser = true;
    add(mRoot);
    EXPECT_EQ(PLUGIN_SUCCESS, verify(server, promptUser));
    EXPECT_FALSE(promptUser);
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
    add(mRoot);
    testsupport::failingNew = std::string("/var/ssl/trustedcerts/").capacity() + 1;
    PluginResult result = PLUGIN_SUCCESS;
    EXPECT_NO_THROW(result = verify(server, promptUser));
    EXPECT_EQ(0u, testsupport::failingNew) << "no such allocation";
    EXPECT_EQ(PLUGIN_FAILURE, result);
    EXPECT_FALSE(promptUser);
    EXPECT_THAT(
        fakes::logLines(3),
        ElementsAre(fakes::LogLine{3, "VerifyServerCertificate: Server Certificate verification is not reliable"}));
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser)) << "the intermediates are still there";
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3,
                                           "VerifyServerCertificate: Server Certificate verification failed: unable to "
                                           "get local issuer certificate"}));
}

// A regular file that opens, and whose first byte nobody can read.
TEST_F(VerifierErrorsTest, InstalledFileThatCannotBeReadRefuses)
{
    const Identity server = makeIdentity({"vpn.example", 6});
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_SUCCESS, verify(server, promptUser));
    EXPECT_TRUE(promptUser);
    installTrusted(server);
    const std::filesystem::path file = std::filesystem::directory_iterator("/var/ssl/trustedcerts")->path();
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/proc/self/mem", file);
    EXPECT_EQ(PLUGIN_FAILURE, verify(server, promptUser));
    EXPECT_FALSE(promptUser);
    EXPECT_THAT(
        fakes::logLines(3),
        ElementsAre(fakes::LogLine{3, "VerifyServerCertificate: Server Certificate verification is not reliable"}));
}

// What is there and holds no certificate is no fault: the certificate counts as not installed.
TEST_F(VerifierErrorsTest, InstalledFileWithoutACertificateAsks)
{
    const Identity server = makeIdentity({"vpn.example", 6});
    installTrusted(server);
    const std::filesystem::path file = std::filesystem::directory_iterator("/var/ssl/trustedcerts")->path();
    const auto expectQuestion = [&](const char* what) {
        bool promptUser = false;
        EXPECT_EQ(PLUGIN_SUCCESS, verify(server, promptUser)) << what;
        EXPECT_TRUE(promptUser) << what;
        std::filesystem::remove(file);
    };
    testsupport::writeFile(file, std::string("no certificate\n"));
    expectQuestion("text");
    testsupport::writeFile(file, std::string());
    expectQuestion("an empty file");
    testsupport::writeFile(file, mRoot.pem());
    expectQuestion("another subject's");
    std::filesystem::create_directory(file);
    expectQuestion("a folder");
    std::filesystem::create_symlink("nowhere", file);
    expectQuestion("a link to nothing");
    std::filesystem::create_symlink(file, file);
    expectQuestion("a link to itself");
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(VerifierErrorsTest, ListThatCannotBeMadeFailsTheAdding)
{
    sCallsLeft["OPENSSL_sk_new_null"] = 1;
    EXPECT_EQ(PLUGIN_FAILURE, add(mRoot));
    EXPECT_EQ(PLUGIN_SUCCESS, add(mRoot));
}

TEST_F(VerifierErrorsTest, ListThatCannotGrowFailsTheAdding)
{
    EXPECT_EQ(PLUGIN_SUCCESS, add(mRoot));
    sCallsLeft["OPENSSL_sk_push"] = 1;
    EXPECT_EQ(PLUGIN_FAILURE, add(mRoot));
    EXPECT_EQ(PLUGIN_SUCCESS, add(mRoot));
}

// The verification makes the list that it is missing, and does not look whether it could.
TEST_F(VerifierErrorsTest, VerificationWithoutAListGoesOn)
{
    installTrusted(mRoot);
    sCallsLeft["OPENSSL_sk_new_null"] = 1;
    bool promptUser = false;
    EXPECT_EQ(PLUGIN_SUCCESS, verify(makeIdentity({"vpn.example", 6}, &mRoot), promptUser));
    EXPECT_FALSE(promptUser);
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

}  // namespace
