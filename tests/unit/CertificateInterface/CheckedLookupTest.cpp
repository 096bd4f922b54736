// SPDX-License-Identifier: Apache-2.0
//
// The checked look-up reads the trusted directory as OpenSSL's own does, whatever lies there: it finds the same
// subjects and leaves the same certificates in the store.
#include "CertificateInterface/CheckedLookup.h"

#include <gmock/gmock.h>
#include <openssl/evp.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <functional>

#include "CertificateAuthority.h"
#include "handles/Stdio.h"

namespace {

namespace fs = std::filesystem;

using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

const std::string directory = "/var/ssl/trustedcerts/";

std::vector<std::string> namesIn(X509_STORE* store)
{
    std::vector<std::string> names;
    const STACK_OF(X509_OBJECT)* objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        const X509* certificate = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(objects, i));
        names.push_back(std::to_string(ASN1_INTEGER_get(X509_get0_serialNumber(certificate))));
    }
    std::sort(names.begin(), names.end());  // the order depends on the version of OpenSSL
    return names;
}

class CheckedLookupTest : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all(directory);
        fs::create_directories(directory);
    }

    static std::string pathOf(const Identity& identity, int number)
    {
        char name[32];
        std::snprintf(name, sizeof name, "%08lx.%d", X509_subject_name_hash(identity.certificate.get()), number);
        return directory + name;
    }

    // Looks for each subject in turn, in one store, and says what was found and what the store holds then.
    std::vector<std::string> lookUp(X509_STORE* store) const
    {
        const X509StoreCtxPtr context(X509_STORE_CTX_new());
        X509_STORE_CTX_init(context.get(), store, nullptr, nullptr);
        std::vector<std::string> answers;
        for (const Identity* identity : {&mFirst, &mSecond, &mOther, &mFirst}) {
            const X509ObjectPtr found(X509_OBJECT_new());
            const int result = X509_STORE_CTX_get_by_subject(
                context.get(), X509_LU_X509, X509_get_subject_name(identity->certificate.get()), found.get());
            answers.push_back("found: " + std::to_string(result));
            for (const std::string& name : namesIn(store))
                answers.push_back(name);
        }
        return answers;
    }

    std::vector<std::string> plainAnswers() const
    {
        const X509StorePtr store(X509_STORE_new());
        EXPECT_EQ(1, X509_STORE_load_locations(store.get(), nullptr, directory.c_str()));
        return lookUp(store.get());
    }

    std::vector<std::string> checkedAnswers() const
    {
        wfoal::CheckedLookup lookup(directory);
        const X509StorePtr store(X509_STORE_new());
        EXPECT_TRUE(lookup.attachTo(store.get()));
        std::vector<std::string> answers = lookUp(store.get());
        EXPECT_FALSE(lookup.hasFault());
        return answers;
    }

    void expectTheSame(const char* what) const { EXPECT_EQ(plainAnswers(), checkedAnswers()) << what; }

    // The first two have one subject.
    const Identity mFirst = makeIdentity({"Root", 1, true});
    const Identity mSecond = makeIdentity({"Root", 2, true});
    const Identity mOther = makeIdentity({"Other", 3, true});
};

TEST_F(CheckedLookupTest, NoDirectoryAndAnEmptyOne)
{
    expectTheSame("empty");
    fs::remove_all(directory);
    expectTheSame("none");
}

TEST_F(CheckedLookupTest, NumberedFiles)
{
    writeFile(pathOf(mFirst, 0), mFirst.pem());
    writeFile(pathOf(mOther, 0), mOther.pem());
    expectTheSame("one each");
    writeFile(pathOf(mSecond, 1), mSecond.pem());
    expectTheSame("two of a subject");
    writeFile(pathOf(mSecond, 2), mSecond.pem());
    expectTheSame("one twice");
    fs::remove(pathOf(mFirst, 0));
    expectTheSame("without the first");
}

// Each lies before the file of the second certificate, and may hide it.
TEST_F(CheckedLookupTest, FilesOfEveryKind)
{
    const std::string path = pathOf(mFirst, 0);
    const std::string pem = mFirst.pem();
    std::string crlf = pem;
    for (std::size_t at = 0; (at = crlf.find('\n', at)) != std::string::npos; at += 2)
        crlf.replace(at, 1, "\r\n");
    const auto der = mFirst.der();
    const std::pair<const char*, std::string> contents[] = {
        {"empty", ""},
        {"text", "no certificate\n"},
        {"text before", "subject=Root\n" + pem},
        {"text after it", pem + "the end\n"},
        {"no newline at the end", pem.substr(0, pem.size() - 1)},
        {"CR LF", crlf},
        {"another subject's", mOther.pem()},
        {"several", pem + mOther.pem() + mSecond.pem()},
        {"key before", mFirst.keyPem() + pem},
        {"encrypted key after it", pem + mFirst.keyPem("secret")},
        {"cut short", pem.substr(0, pem.size() / 2)},
        {"damaged before a good one", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n" + pem},
        {"NUL before", std::string("a\0b\n", 4) + pem},
        {"NUL inside", pem.substr(0, 100) + std::string("\0", 1) + pem.substr(100)},
        {"DER", std::string(der.begin(), der.end())},
    };
    writeFile(pathOf(mSecond, 1), mSecond.pem());
    for (const auto& [what, content] : contents) {
        writeFile(path, content);
        expectTheSame(what);
    }
}

// Newer versions of OpenSSL do not find what lies before the damage when they read the file, but later. A verification
// that does not agree with the other one refuses.
TEST_F(CheckedLookupTest, DamageBehindACertificate)
{
    writeFile(pathOf(mFirst, 0), mFirst.pem() + "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    writeFile(pathOf(mSecond, 1), mSecond.pem());
    std::vector<std::string> plain = plainAnswers();
    ASSERT_FALSE(plain.empty());
    EXPECT_THAT(plain.front(), testing::AnyOf("found: 0", "found: 1"));
    plain.front() = "found: 1";
    EXPECT_EQ(plain, checkedAnswers());
}

TEST_F(CheckedLookupTest, TrustSettings)
{
    testsupport::installDistrusted(mFirst);
    testsupport::installTrusted(mSecond);
    expectTheSame("distrusted, then trusted");
}

TEST_F(CheckedLookupTest, LinksAndFolders)
{
    const std::string path = pathOf(mFirst, 0);
    writeFile(pathOf(mSecond, 1), mSecond.pem());
    writeFile(directory + "root.pem", mFirst.pem());
    const std::pair<const char*, std::function<void()>> entries[] = {
        {"link", [&] { fs::create_symlink("root.pem", path); }},
        {"link to nothing", [&] { fs::create_symlink("nowhere", path); }},
        {"link to itself", [&] { fs::create_symlink(path, path); }},
        {"link to a folder", [&] { fs::create_symlink("/", path); }},
        {"link to a device", [&] { fs::create_symlink("/dev/null", path); }},
        {"link through a file", [&] { fs::create_symlink("root.pem/inside", path); }},
        {"folder", [&] { fs::create_directory(path); }},
    };
    for (const auto& [what, make] : entries) {
        make();
        expectTheSame(what);
        fs::remove(path);
    }
}

// What is looked up with each of these finds nothing, and the store is left empty.
const std::vector<std::string> nothing = {"found: 0", "found: 0", "found: 0", "found: 0"};

TEST_F(CheckedLookupTest, PathThatIsTooLongIsAFault)
{
    wfoal::CheckedLookup lookup("/" + std::string(PATH_MAX - 11, 'x'));  // with a name it takes one byte too many
    const X509StorePtr store(X509_STORE_new());
    ASSERT_TRUE(lookup.attachTo(store.get()));
    EXPECT_EQ(nothing, lookUp(store.get()));
    EXPECT_TRUE(lookup.hasFault());
}

TEST_F(CheckedLookupTest, RevocationListsAreNotLookedFor)
{
    testsupport::installTrusted(mFirst);
    wfoal::CheckedLookup lookup(directory);
    const X509StorePtr store(X509_STORE_new());
    ASSERT_TRUE(lookup.attachTo(store.get()));
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr);
    const X509ObjectPtr found(X509_OBJECT_new());
    const X509_NAME* const name = X509_get_subject_name(mFirst.certificate.get());
    EXPECT_EQ(0, X509_STORE_CTX_get_by_subject(context.get(), X509_LU_CRL, name, found.get()));
    EXPECT_EQ(std::vector<std::string>(), namesIn(store.get()));
    EXPECT_FALSE(lookup.hasFault());
}

// Opens, and is a regular file, but cannot be read.
TEST_F(CheckedLookupTest, FileThatCannotBeReadIsAFault)
{
    fs::create_symlink("/proc/self/mem", pathOf(mFirst, 0));
    wfoal::CheckedLookup lookup(directory);
    const X509StorePtr store(X509_STORE_new());
    ASSERT_TRUE(lookup.attachTo(store.get()));
    EXPECT_EQ(nothing, lookUp(store.get()));
    EXPECT_TRUE(lookup.hasFault());
}

// Is a regular file, but nobody may read it; the next file is not looked for.
TEST_F(CheckedLookupTest, FileThatCannotBeOpenedIsAFaultAndEndsTheFiles)
{
    const char* const writeOnly = "/proc/sys/net/ipv4/route/flush";
    ASSERT_TRUE(fs::is_regular_file(writeOnly));
    ASSERT_EQ(nullptr, FilePtr(std::fopen(writeOnly, "re")));
    fs::create_symlink(writeOnly, pathOf(mFirst, 0));
    writeFile(pathOf(mSecond, 1), mSecond.pem());
    wfoal::CheckedLookup lookup(directory);
    const X509StorePtr store(X509_STORE_new());
    ASSERT_TRUE(lookup.attachTo(store.get()));
    EXPECT_EQ(nothing, lookUp(store.get()));
    EXPECT_TRUE(lookup.hasFault());
}

// The name of the files comes from a hash, for which OpenSSL fetches an algorithm.
TEST_F(CheckedLookupTest, NameThatCannotBeHashedIsAFault)
{
    writeFile(pathOf(mFirst, 0), mFirst.pem());
    wfoal::CheckedLookup lookup(directory);
    const X509StorePtr store(X509_STORE_new());
    ASSERT_TRUE(lookup.attachTo(store.get()));
    ASSERT_EQ(1, EVP_set_default_properties(nullptr, "provider=none"));
    const std::vector<std::string> answers = lookUp(store.get());
    ASSERT_EQ(1, EVP_set_default_properties(nullptr, ""));
    EXPECT_EQ(nothing, answers);
    EXPECT_TRUE(lookup.hasFault());
}

}  // namespace
