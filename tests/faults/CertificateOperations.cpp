// SPDX-License-Identifier: Apache-2.0
//
// The certificate interface of the loaded plug-in, with the real certificate manager.
#include <cstring>
#include <filesystem>
#include <map>

#include "CertificateAuthority.h"
#include "Files.h"
#include "Shell.h"
#include "World.h"

namespace faults {

namespace {

using testsupport::Identity;
using testsupport::LoadedPlugin;
using testsupport::makeIdentity;

class WithCertificates : public Operation {
protected:
    WithCertificates() : mpCertificates(mPlugin.createCertificates()) {}
    ~WithCertificates() override { mPlugin.dispose(mpCertificates); }

    LoadedPlugin mPlugin;
    KEST_CertPlugin* mpCertificates;
};

enum Verdict : int { accept, ask, refuse };

class Verify : public WithCertificates {
protected:
    Verify(const Identity& server, const Identity* intermediate) : mServer(server.der())
    {
        if (intermediate != nullptr) mIntermediate = intermediate->der();
    }

    void begin() override
    {
        mpCertificates->ClearVerificationCertificates();
        if (mIntermediate.empty()) return;
        mpCertificates->AddVerificationCert(mIntermediate.data(), static_cast<unsigned>(mIntermediate.size()));
    }
    int act() override
    {
        bool promptUser = false;
        const PluginResult result = mpCertificates->VerifyServerCertificate(
            mServer.data(), static_cast<unsigned>(mServer.size()), "vpn.example", promptUser);
        if (result != PLUGIN_SUCCESS) return refuse;
        return promptUser ? ask : accept;
    }

private:
    std::vector<unsigned char> mServer;
    std::vector<unsigned char> mIntermediate;
};

struct Authority {
    Authority() { testsupport::installTrusted(root); }
    Identity root = makeIdentity({"Root", 1, true});
    Identity intermediate = makeIdentity({"Intermediate", 2, true}, &root);
    Identity stranger = makeIdentity({"Stranger", 3, true});
};

class VerifyGood : private Authority, public Verify {
public:
    VerifyGood() : Verify(makeIdentity({"vpn.example", 4}, &intermediate), &intermediate)
    {
        testsupport::installTrusted(makeIdentity({"vpn.example", 5}));
    }
};

class VerifyAsk : public Verify {
public:
    VerifyAsk() : Verify(makeIdentity({"other.example", 6}), nullptr) {}
};

class VerifyBad : private Authority, public Verify {
public:
    VerifyBad() : Verify(makeIdentity({"vpn.example", 4}, &stranger), nullptr)
    {
        testsupport::installTrusted(makeIdentity({"vpn.example", 5}));
    }
};

class VerifyExpired : private Authority, public Verify {
    static testsupport::CertificateOptions expired()
    {
        testsupport::CertificateOptions options{"vpn.example", 4};
        options.notAfter = -60;
        return options;
    }

public:
    VerifyExpired() : Verify(makeIdentity(expired(), &root), nullptr)
    {
        testsupport::installTrusted(makeIdentity({"vpn.example", 5}));
    }
};

class AddVerification : public WithCertificates {
    int act() override
    {
        const PluginResult result =
            mpCertificates->AddVerificationCert(mData.data(), static_cast<unsigned>(mData.size()));
        mpCertificates->ClearVerificationCertificates();
        return result;
    }
    std::vector<unsigned char> mData = makeIdentity({"Intermediate", 2, true}).der();
};

class WithStore : public WithCertificates {
protected:
    WithStore()
    {
        std::filesystem::create_directories("/var/ssl/certs");
        std::filesystem::create_directories("/var/ssl/private");
        testsupport::writeFile("/var/ssl/certs/user.pem", mUser.pem());
        testsupport::writeFile("/var/ssl/private/rsauser.pem", mUser.keyPem());
    }
    Identity mUser = makeIdentity({"user", 7});
};

class ListCertificates : public WithStore {
    int act() override
    {
        mCount = 4;
        return mpCertificates->EnumerateClientCerts(mCount, mHandles);
    }
    void judge(int result, const Disturbance& disturbance) override
    {
        if (result != PLUGIN_SUCCESS) return;
        expect(mCount <= 1, "too many");
        expect(mCount == 1 || !disturbance.isUndisturbed, "the certificate is not found");
        for (unsigned i = 0; i < mCount; ++i) {
            unsigned length = 0;
            unsigned char* data = nullptr;
            expect(mHandles[i] != nullptr && mHandles[i]->GetCertDer(length, data) == PLUGIN_SUCCESS, "no handle");
            const std::vector<unsigned char> der = mUser.der();
            expect(length == der.size() && std::memcmp(data, der.data(), length) == 0, "another certificate");
        }
    }
    void end() override
    {
        for (ClientCertHandle*& handle : mHandles) {
            mpCertificates->DisposeClientCertHandle(handle);
            handle = nullptr;
        }
    }
    unsigned mCount = 0;
    ClientCertHandle* mHandles[4] = {};
};

class Sign : public WithStore {
public:
    Sign()
    {
        unsigned count = 1;
        mpCertificates->EnumerateClientCerts(count, &mpHandle);
        expect(count == 1, "no certificate to sign with");
    }
    ~Sign() override { mpCertificates->DisposeClientCertHandle(mpHandle); }

private:
    int act() override
    {
        const unsigned char hash[36] = {};
        unsigned char* place = mSignature;
        unsigned length = sizeof mSignature;
        return mpHandle->SignSSL(hash, sizeof hash, place, length, "");
    }
    void judge(int result, const Disturbance&) override
    {
        if (result != PLUGIN_SUCCESS) return;
        if (mGood.empty()) mGood.assign(mSignature, mSignature + sizeof mSignature);
        expect(std::memcmp(mSignature, mGood.data(), mGood.size()) == 0, "another signature");
        std::memset(mSignature, 0, sizeof mSignature);
    }
    ClientCertHandle* mpHandle = nullptr;
    unsigned char mSignature[256] = {};
    std::vector<unsigned char> mGood;
};

/// By the plug-in, over a real bus; the certificate manager is another process.
class Import : public Operation {
public:
    Import()
    {
        mManager = testsupport::ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-certificatemanager"});
        testsupport::waitForBusName("com.vesk.certificatemanager", mManager);
        mpSystem = mPlugin.createSystem();
        mpCertificates = mPlugin.createCertificates();
    }
    ~Import() override
    {
        mPlugin.dispose(mpCertificates);
        mPlugin.dispose(mpSystem);
    }

private:
    bool comesBack() const override { return true; }
    // json-c drops and leaks a value for whose key it has no memory.
    long keptAfterFault() const override { return 2; }
    void begin() override { std::filesystem::remove_all("/var/ssl"); }
    int act() override
    {
        bool first = false;
        bool second = true;
        mpHandle = nullptr;
        try {
            return mpCertificates->ImportPKCS12(static_cast<unsigned>(mBundle.size()), mBundle.data(), "secret", "",
                                                first, second, mpHandle);
        } catch (const char*) {
            return PLUGIN_FAILURE;  // documented
        }
    }
    void judge(int result, const Disturbance&) override
    {
        expect((result == PLUGIN_SUCCESS) == (mpHandle != nullptr), "a handle without success, or none with it");
        const std::string files = testsupport::shell("ls -A /var/ssl/certs /var/ssl/private 2>/dev/null || true");
        expect(files.find(".installing") == std::string::npos, "half a file: " + files);
        expect(result != PLUGIN_SUCCESS || files.find("rsa") != std::string::npos, "no key: " + files);
    }
    void end() override
    {
        mpCertificates->DisposeClientCertHandle(mpHandle);
        mpHandle = nullptr;
    }

    const std::vector<unsigned char> mBundle = makeIdentity({"client", 4}).pkcs12("secret");
    testsupport::ChildProcess mBus = testsupport::startBus();
    testsupport::ChildProcess mManager;
    LoadedPlugin mPlugin;
    KEST_SystemPlugin* mpSystem = nullptr;
    KEST_CertPlugin* mpCertificates = nullptr;
    ClientCertHandle* mpHandle = nullptr;
};

}  // namespace

Entries certificateOperations()
{
    constexpr int failure = PLUGIN_FAILURE;
    return {
        // With a fault, a certificate may be refused that would be accepted; nothing else.
        {"VerifyServerCertificate-good", make<VerifyGood>, accept, {accept, refuse}},
        {"VerifyServerCertificate-self-signed", make<VerifyAsk>, ask, {ask, refuse}},
        {"VerifyServerCertificate-unknown-issuer", make<VerifyBad>, refuse, {refuse}},
        {"VerifyServerCertificate-expired", make<VerifyExpired>, refuse, {refuse}},
        {"AddVerificationCert", make<AddVerification>, 0, {0, failure}},
        {"EnumerateClientCerts", make<ListCertificates>, 0, {0, failure}},
        {"SignSSL", make<Sign>, 0, {0, failure}},
        {"ImportPKCS12", make<Import>, 0, {0, failure}},
    };
}

}  // namespace faults
