// SPDX-License-Identifier: Apache-2.0
#include "ChainCheck.h"

#include <openssl/x509v3.h>

#include <new>

#include "CheckedLookup.h"

namespace wfoal {

namespace {

// A certificate keeps what was worked out about it, and so keeps a fault: a copy starts anew. Null when there is no
// memory for all of it.
X509StackPtr copyOf(const STACK_OF(X509) * certificates)
{
    X509StackPtr copies(sk_X509_new_null());
    for (int i = 0; copies && i < sk_X509_num(certificates); ++i) {
        X509Ptr copy(X509_dup(sk_X509_value(certificates, i)));
        if (!copy || sk_X509_push(copies.get(), copy.get()) == 0) return nullptr;
        static_cast<void>(copy.release());  // the stack's now
    }
    return copies;
}

}  // namespace

bool verifiesForServer(X509_STORE_CTX* context)
{
    return X509_STORE_CTX_set_purpose(context, X509_PURPOSE_SSL_SERVER) == 1 && X509_verify_cert(context) == 1;
}

bool isInStore(X509_STORE_CTX* context, const X509_NAME* subject)
{
    const X509ObjectPtr found(X509_OBJECT_new());
    return found && X509_STORE_CTX_get_by_subject(context, X509_LU_X509, subject, found.get()) == 1;
}

bool isConfirmed(const ChainFindings& findings, X509* server, const STACK_OF(X509) * untrusted,
                 const char* trustedDirectory)
try {  // the judgement may not leave by an exception
    const X509Ptr copy(X509_dup(server));
    const X509StackPtr untrustedCopies = copyOf(untrusted);
    CheckedLookup lookup(trustedDirectory);
    const X509StorePtr store(X509_STORE_new());
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    if (!copy || !untrustedCopies || !store || !context || !lookup.attachTo(store.get()) ||
        X509_STORE_CTX_init(context.get(), store.get(), copy.get(), untrustedCopies.get()) != 1 ||
        verifiesForServer(context.get())) {
        return false;
    }
    const int error = X509_STORE_CTX_get_error(context.get());
    const ChainFindings second{error, isInStore(context.get(), X509_get_subject_name(copy.get()))};
    return second == findings && !lookup.hasFault();
} catch (const std::bad_alloc&) {
    return false;
}

}  // namespace wfoal
