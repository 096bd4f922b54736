// SPDX-License-Identifier: Apache-2.0
#include "CheckedLookup.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "handles/Stdio.h"

namespace wfoal {

bool CheckedLookup::attachTo(X509_STORE* store)
{
    mMethod.reset(X509_LOOKUP_meth_new("checked directory"));
    if (!mMethod || X509_LOOKUP_meth_set_get_by_subject(mMethod.get(), getBySubject) != 1) return false;
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(store, mMethod.get());
    return lookup != nullptr && X509_LOOKUP_set_method_data(lookup, this) == 1;
}

int CheckedLookup::getBySubject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found)
{
    if (type != X509_LU_X509) return 0;
    X509_STORE* const store = X509_LOOKUP_get_store(lookup);
    static_cast<CheckedLookup*>(X509_LOOKUP_get_method_data(lookup))->loadAll(store, name);
    X509* certificate = nullptr;
    if (X509_STORE_lock(store) != 1) return 0;
    const X509_OBJECT* const object =
        X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), X509_LU_X509, name);
    if (object != nullptr) certificate = X509_OBJECT_get0_X509(object);
    X509_STORE_unlock(store);
    if (certificate == nullptr || X509_OBJECT_set1_X509(found, certificate) != 1) return 0;
    X509_free(certificate);  // what a look-up hands over is the store's: the caller counts its own reference
    return 1;
}

// The files are HASH.0, HASH.1 and so on. The first that is missing, or holds no certificate, ends them.
void CheckedLookup::loadAll(X509_STORE* store, const X509_NAME* name)
{
    int isHashed = 0;
    const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &isHashed);
    if (isHashed == 0) {
        mHasFault = true;
        return;
    }
    std::array<char, PATH_MAX> path{};
    for (int number = 0;; ++number) {
        const int length = std::snprintf(path.data(), path.size(), "%s%08lx.%d", mDirectory.c_str(), hash, number);
        if (static_cast<std::size_t>(length) >= path.size()) {
            mHasFault = true;
            return;
        }
        if (!isFile(path.data()) || !load(store, path.data())) return;
    }
}

// What is no regular file holds no certificate.
bool CheckedLookup::isFile(const char* path)
{
    struct stat status {};
    if (stat(path, &status) == 0) return S_ISREG(status.st_mode);
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) mHasFault = true;
    return false;
}

// False when the file holds no certificate, or anything that is none.
bool CheckedLookup::load(X509_STORE* store, const char* path)
{
    const FilePtr file(std::fopen(path, "re"));
    const BioPtr bio(file ? BIO_new_fp(file.get(), BIO_NOCLOSE) : nullptr);
    if (!bio) {
        mHasFault = true;
        return false;
    }
    char noPassword[] = "";
    int count = 0;
    for (;;) {
        const X509Ptr certificate(PEM_read_bio_X509_AUX(bio.get(), nullptr, nullptr, noPassword));
        if (!certificate) break;
        if (X509_STORE_add_cert(store, certificate.get()) != 1) return false;
        ++count;
    }
    if (std::ferror(file.get()) != 0) mHasFault = true;
    return count > 0 && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

}  // namespace wfoal
