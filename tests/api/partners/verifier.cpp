// SPDX-License-Identifier: Apache-2.0
//
// verifier LIBRARY FOLDER [deep]: has the plug-in judge the certificates of FOLDER, and prints the verdicts. The
// program is linked with an OpenSSL of its own, or with something that looks like one. With "deep" it loads the plug-in
// so that names of the program do not come before those of the plug-in's libraries.
#include <dlfcn.h>
#include <kest/CertPlugin.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#ifdef WITH_OPENSSL
#include <openssl/x509.h>
// In a program of a fixed address the function's address is a place in the program, when code of it asks for the
// address.
static bool hasFunction()
{
    void (*volatile address)(X509*) = X509_free;
    return address != nullptr;
}
#else
static bool hasFunction()
{
    return true;
}
#endif

using Bytes = std::vector<unsigned char>;

static Bytes read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

// How often the plug-in has called what looks like OpenSSL.
extern "C" int gCallsOfProgram __attribute__((weak));

int main(int argc, char** argv)
{
    if (argc < 3 || !hasFunction()) return 2;
    const bool isDeep = argc > 3 && std::strcmp(argv[3], "deep") == 0;
    void* library = dlopen(argv[1], RTLD_NOW | (isDeep ? RTLD_DEEPBIND : 0));
    if (library == nullptr) {
        std::printf("%s\n", dlerror());
        return 1;
    }
    for (const char* name : {"CreatePlugin", "vpnWfOalLogCxt", "VkLogPrint", "json_object_new_object"}) {
        if (dlsym(RTLD_DEFAULT, name) != nullptr) std::printf("%s is a name of the program; ", name);
    }
    const auto create = reinterpret_cast<CreatePluginFunction>(dlsym(library, "CreatePlugin"));
    auto* certificates = static_cast<KEST_CertPlugin*>(create(KEST_CERTIFICATE_INTERFACE));
    const std::string folder = argv[2];
    const Bytes issuer = read(folder + "/issuer.der");
    for (const char* who : {"gateway", "expired", "stranger"}) {
        const Bytes certificate = read(folder + "/" + who + ".der");
        certificates->AddVerificationCert(issuer.data(), static_cast<unsigned int>(issuer.size()));
        bool promptUser = false;
        const PluginResult result = certificates->VerifyServerCertificate(
            certificate.data(), static_cast<unsigned int>(certificate.size()), "vpn.example", promptUser);
        std::printf("%s %d%s; ", who, result, promptUser ? " ask" : "");
    }
    std::printf("%d calls of the program's own\n", &gCallsOfProgram != nullptr ? gCallsOfProgram : 0);
    return 0;
}
