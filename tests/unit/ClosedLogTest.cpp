// SPDX-License-Identifier: Apache-2.0
//
// What is not logged changes nothing: operations that log, with each kind of fault that a caller, a file or the
// platform can cause, have the same result when the threshold lets nothing through.
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "CertificateInterface/ImportReply.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "ResourceLimits.h"

namespace {

namespace fs = std::filesystem;
using testing::IsEmpty;
using testing::Not;
using testsupport::makeIdentity;
using testsupport::writeFile;

constexpr int thrown = 4711;

class ClosedLogTest : public testing::Test {
protected:
    /// Runs it twice, `prepare` before each.
    static void compare(const char* name, const std::function<void()>& prepare, const std::function<int()>& operation)
    {
        prepare();
        fakes::clearLog();
        const int open = operation();
        EXPECT_THAT(fakes::logLines(), Not(IsEmpty())) << name;
        prepare();
        fakes::clearLog();
        const fakes::ClosedLog closed;
        EXPECT_EQ(open, operation()) << name;
        EXPECT_THAT(fakes::logLines(), IsEmpty()) << name;
    }
};

// ---- import -------------------------------------------------------------------------------------------------------

class ClosedLogOfImportsTest : public ClosedLogTest {
protected:
    static void prepare()
    {
        fs::remove_all("/tmp/vpncerts");
        fakes::bus() = fakes::BusState{};
    }
    static void answerWith(const char* payload)
    {
        prepare();
        fakes::bus().onCall = [payload](const fakes::BusCall& made) {
            QSMessage message{payload, 1};
            made.callback(made.handle, &message, made.userData);
        };
    }
    int import(const char* password = "secret")
    {
        bool first = true;
        bool second = true;
        ClientCertHandle* handle = nullptr;
        int result = thrown;
        try {
            result = mInterface.ImportPKCS12(static_cast<unsigned>(mBundle.size()), mBundle.data(), password, "store",
                                             first, second, handle);
        } catch (const char*) {
        }
        EXPECT_EQ(result == PLUGIN_SUCCESS, handle != nullptr);
        mInterface.DisposeClientCertHandle(handle);
        return result;
    }

    CertificateInterface mInterface;
    const std::vector<unsigned char> mBundle = makeIdentity({"client", 10}).pkcs12("secret");
};

TEST_F(ClosedLogOfImportsTest, Answers)
{
    const auto operation = [this] { return import(); };
    compare(
        "installed", [] { answerWith(R"({"returnValue":true})"); }, operation);
    compare(
        "refused", [] { answerWith(R"({"returnValue":false})"); }, operation);
    compare(
        "no JSON", [] { answerWith("none"); }, operation);
    compare(
        "another password", [] { answerWith(R"({"returnValue":true})"); }, [this] { return import("wrong"); });
    const auto limit = wfoal::importReplyTimeout;
    wfoal::importReplyTimeout = std::chrono::milliseconds(1);
    compare("none", prepare, operation);
    wfoal::importReplyTimeout = limit;
}

TEST_F(ClosedLogOfImportsTest, RequestsThatTheBusDoesNotTake)
{
    const auto refuse = [] {
        prepare();
        fakes::bus().failing = "QSCall";
    };
    for (const char* password : {static_cast<const char*>(nullptr), "secret", "p\xe4ssword"})
        compare("a call that fails", refuse, [&] { return import(password); });
}

TEST_F(ClosedLogOfImportsTest, Staging)
{
    const auto operation = [this] { return import(); };
    const std::pair<const char*, std::function<void()>> obstacles[] = {
        {"a file in place of the folder", [] { std::ofstream("/tmp/vpncerts") << "in the way"; }},
        {"a link in place of the folder", [] { fs::create_directory_symlink("/tmp", "/tmp/vpncerts"); }},
        {"a folder in place of the file", [] { fs::create_directories("/tmp/vpncerts/vpninstall.pfx"); }},
    };
    for (const auto& [name, make] : obstacles) {
        const auto block = [&make = make] {
            prepare();
            make();
        };
        compare(name, block, operation);
    }
    compare("a full disk", prepare, [this] {
        const testsupport::NoFileGrows limit;
        return import();
    });
}

// ---- certificates -------------------------------------------------------------------------------------------------

TEST_F(ClosedLogTest, ClientCertificates)
{
    CertificateInterface interface;
    const auto identity = makeIdentity({"client", 10});
    const std::string certificate = "/var/ssl/certs/client.pem";
    const std::string key = "/var/ssl/private/rsaclient.pem";
    const auto prepare = [&] {
        fs::remove_all("/var/ssl");
        fs::create_directories("/var/ssl/certs");
        fs::create_directories("/var/ssl/private");
        writeFile(certificate, identity.pem());
        writeFile(key, identity.keyPem());
    };
    const auto list = [&] {
        unsigned count = 0;
        return interface.EnumerateClientCerts(count, nullptr) * 100 + static_cast<int>(count);
    };
    const std::pair<const char*, std::function<void()>> faults[] = {
        {"none", [] {}},
        {"no key", [&] { fs::remove(key); }},
        {"no certificate in the file", [&] { writeFile(certificate, std::string("none")); }},
        {"a link to nothing", [&] { fs::remove(certificate), fs::create_symlink("nowhere", certificate); }},
        {"no folder", [] { fs::remove_all("/var/ssl"); }},
        {"nothing", [&] { fs::remove(certificate); }},
    };
    for (const auto& [name, make] : faults) {
        const auto damage = [&, &make = make] {
            prepare();
            make();
        };
        compare(name, damage, list);
    }
    compare("a buffer for none", prepare, [&] {
        ClientCertHandle* handle = nullptr;
        unsigned none = 0;
        return interface.EnumerateClientCerts(none, &handle);
    });
}

TEST_F(ClosedLogTest, ServerCertificates)
{
    CertificateInterface interface;
    const auto root = makeIdentity({"Root", 1, true});
    testsupport::CertificateOptions expired{"vpn.example", 6};
    expired.notAfter = -60;
    testsupport::CertificateOptions clientOnly{"other.example", 5};
    clientOnly.extendedKeyUsage = "clientAuth";
    const std::pair<const char*, testsupport::Identity> servers[] = {
        {"wrong purpose and another name, installed", makeIdentity(clientOnly)},
        {"not installed", makeIdentity({"vpn.example", 7})},
        {"expired", makeIdentity(expired, &root)},
        {"unknown issuer", makeIdentity({"vpn.example", 8}, &root)},
        {"no name", makeIdentity({"", 9})},
    };
    const auto prepare = [&] {
        fs::remove_all("/var/ssl");
        fs::create_directories("/var/ssl/trustedcerts");
        testsupport::installTrusted(servers[0].second);
    };
    const auto verify = [&](const std::vector<unsigned char>& der) {
        bool promptUser = false;
        const PluginResult result =
            interface.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()), "vpn.example", promptUser);
        return result * 10 + (promptUser ? 1 : 0);
    };
    for (const auto& [name, server] : servers)
        compare(name, prepare, [&, &server = server] { return verify(server.der()); });
    compare("no certificate", prepare, [&] { return verify({1, 2, 3}); });
    const auto readStack = [&](const char* path) {
        const X509StackPtr stack(sk_X509_new_null());
        return interface.x509StackFromPEMFile(path, stack.get()) ? 1 : 0;
    };
    compare("no file of certificates", prepare, [&] { return readStack("/nowhere"); });
    const std::string damaged = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
    writeFile("/tmp/damaged.pem", damaged);
    compare("a damaged file of certificates", prepare, [&] { return readStack("/tmp/damaged.pem"); });
}

}  // namespace
