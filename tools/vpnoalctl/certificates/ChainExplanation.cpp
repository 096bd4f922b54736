// SPDX-License-Identifier: Apache-2.0
#include "certificates/ChainExplanation.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

namespace vpnoalctl {

namespace {

constexpr char trustedDirectory[] = "/var/ssl/trustedcerts/";

}  // namespace

std::string reasonOf(const ChainExplanation& explanation)
{
    if (explanation.error == 0) return explanation.reason;
    return explanation.reason + " (" + std::to_string(explanation.error) + ", at depth " +
           std::to_string(explanation.depth) + ")";
}

ChainExplanation explainChain(const Bytes& server, const std::vector<Bytes>& intermediates)
{
    const X509Ptr certificate = parseCertificate(server, "the server's certificate");
    const X509StackPtr untrusted(sk_X509_new_null());
    for (const Bytes& der : intermediates) {
        sk_X509_push(untrusted.get(), parseCertificate(der, "an intermediate certificate").release());
    }
    const X509StorePtr store(X509_STORE_new());
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    X509_STORE_load_locations(store.get(), nullptr, trustedDirectory);
    X509_STORE_CTX_init(context.get(), store.get(), certificate.get(), untrusted.get());
    X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
    const bool isVerified = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();

    ChainExplanation explanation;
    explanation.error = X509_STORE_CTX_get_error(context.get());
    explanation.depth = isVerified ? 0 : X509_STORE_CTX_get_error_depth(context.get());
    explanation.reason =
        isVerified ? "the chain ends in an installed root" : X509_verify_cert_error_string(explanation.error);
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(chain); ++i)
        explanation.chain.push_back(summarize(sk_X509_value(chain, i)));
    return explanation;
}

}  // namespace vpnoalctl
