// SPDX-License-Identifier: Apache-2.0
//
// Reads a hashed directory of trusted certificates as OpenSSL's own look-up does: the same files, in the same order, up
// to the same end. OpenSSL's own treats an unreadable file as missing; this one reports it.
#ifndef WFOAL_CHECKEDLOOKUP_H
#define WFOAL_CHECKEDLOOKUP_H

#include <string>

#include "handles/OpenSsl.h"

namespace wfoal {

class CheckedLookup {
public:
    explicit CheckedLookup(std::string directory) : mDirectory(std::move(directory)) {}
    CheckedLookup(const CheckedLookup&) = delete;
    CheckedLookup& operator=(const CheckedLookup&) = delete;

    /// Adds this look-up to the store, which must not outlive it.
    bool attachTo(X509_STORE* store);

    /// True when a file or the directory could not be read since.
    bool hasFault() const { return mHasFault; }

private:
    static int getBySubject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found);
    void loadAll(X509_STORE* store, const X509_NAME* name);
    bool isFile(const char* path);
    bool load(X509_STORE* store, const char* path);

    std::string mDirectory;
    OpenSslPtr<X509_LOOKUP_METHOD, X509_LOOKUP_meth_free> mMethod;
    bool mHasFault = false;
};

}  // namespace wfoal

#endif
