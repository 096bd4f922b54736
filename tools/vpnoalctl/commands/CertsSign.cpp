// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl certs sign: the signature that proves possession of a certificate's key, as a TLS 1.0 or 1.1 handshake
// needs it: over the MD5 and SHA-1 hashes of the message.
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "certificates/ClientHandles.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t largestMessage = std::size_t{64} << 20;

struct Options {
    std::string choice;
    std::string message;
    std::string passwordFile;
};

Bytes hashOf(const Bytes& message)
{
    Bytes hash(36);
    unsigned int length = 0;
    if (EVP_Digest(message.data(), message.size(), hash.data(), &length, EVP_md5_sha1(), nullptr) != 1 ||
        length != hash.size()) {
        throw CommandError("certs sign", "MD5 and SHA-1 are not available here", "see OpenSSL's configuration");
    }
    return hash;
}

int sign(Context& context, const Options& options)
{
    const Bytes hash = hashOf(readWholeFile(options.message, largestMessage));
    const std::string password = options.passwordFile.empty() ? "" : readPasswordFile(options.passwordFile);
    const auto certificates = context.plugin().create<KEST_CertPlugin>();
    const HandlePtr handle = chooseHandle(listHandles(*certificates), options.choice);
    const HandleSigner signer{*handle, options.passwordFile.empty() ? nullptr : password.c_str()};
    const Bytes signature = signer.sign(hash.data(), static_cast<unsigned>(hash.size()));
    if (signature.empty()) {
        throw CommandError("certs sign", "no signature was made",
                           "-v shows why; an encrypted key needs --password-file");
    }
    const std::string text = toHex(signature.data(), signature.size());
    const JsonPtr answer = newObject();
    addText(answer, "hash", toHex(hash.data(), hash.size()));
    addText(answer, "signature", text);
    context.output.value(answer);
    context.output.line(text);
    return ExitOk;
}

}  // namespace

Action defineCertsSign(CLI::App& command)
{
    auto options = std::make_shared<Options>();
    command
        .add_option("certificate", options->choice,
                    "Its common name, its number in the list, or the beginning of its fingerprint")
        ->required()
        ->type_name("CHOICE");
    command.add_option("message", options->message, "File whose MD5 and SHA-1 hashes are signed")
        ->required()
        ->type_name("FILE");
    command.add_option("--password-file", options->passwordFile, "File whose first line opens an encrypted key")
        ->type_name("FILE");
    return [options](Context& context) { return sign(context, *options); };
}

}  // namespace vpnoalctl
