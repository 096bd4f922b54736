// SPDX-License-Identifier: Apache-2.0
//
// Visits the bags of a PKCS#12 bundle in the order in which PKCS12_parse() reads them.
#ifndef HANDLES_PKCS12WALK_H
#define HANDLES_PKCS12WALK_H

#include "OpenSsl.h"

namespace pkcs12walk {

template <class Visit>
bool visitBags(const STACK_OF(PKCS12_SAFEBAG) * bags, Visit& visit)
{
    for (int i = 0; i < sk_PKCS12_SAFEBAG_num(bags); ++i) {
        const PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(bags, i);
        const bool holdsBags = PKCS12_SAFEBAG_get_nid(bag) == NID_safeContentsBag;
        if (!(holdsBags ? visitBags(PKCS12_SAFEBAG_get0_safes(bag), visit) : visit(bag))) return false;
    }
    return true;
}

}  // namespace pkcs12walk

/// Asks `mayDecrypt(const X509_ALGOR*)` before each encrypted part is decrypted, and hands each bag to
/// `visit(const PKCS12_SAFEBAG*)`. Either ends the walk by returning false; the walk then returns false too. Parts that
/// do not decrypt or decode are skipped. A null password and an empty one are different passwords.
template <class MayDecrypt, class Visit>
bool walkPkcs12(const PKCS12* bundle, const char* password, MayDecrypt mayDecrypt, Visit visit)
{
    const Pkcs7StackPtr parts(PKCS12_unpack_authsafes(bundle));
    for (int i = 0; parts && i < sk_PKCS7_num(parts.get()); ++i) {
        PKCS7* part = sk_PKCS7_value(parts.get(), i);
        SafeBagStackPtr bags;
        if (PKCS7_type_is_data(part)) {
            bags.reset(PKCS12_unpack_p7data(part));
        } else if (PKCS7_type_is_encrypted(part)) {
            if (!mayDecrypt(part->d.encrypted->enc_data->algorithm)) return false;
            bags.reset(PKCS12_unpack_p7encdata(part, password, -1));
        }
        if (bags && !pkcs12walk::visitBags(bags.get(), visit)) return false;
    }
    return true;
}

#endif
