// SPDX-License-Identifier: Apache-2.0
#include "ChainVerdict.h"

#include <openssl/x509_vfy.h>

namespace wfoal {

namespace {

struct Row {
    int error;
    ChainVerdict verdict;
};

// By name: the numbers of some conditions have changed between releases of OpenSSL.
const Row sRows[] = {
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, ChainVerdict::AskUser},
    {X509_V_ERR_CERT_NOT_YET_VALID, ChainVerdict::AskUser},
    {X509_V_ERR_CERT_HAS_EXPIRED, ChainVerdict::AskUser},
    {X509_V_ERR_INVALID_CA, ChainVerdict::AskUser},
    {X509_V_ERR_INVALID_PURPOSE, ChainVerdict::AskUser},
    {X509_V_ERR_CERT_UNTRUSTED, ChainVerdict::AskUser},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, ChainVerdict::SelfSignedInChain},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, ChainVerdict::SelfSignedServer},
};

}  // namespace

ChainVerdict chainVerdict(int error)
{
    for (const Row& row : sRows) {
        if (row.error == error) return row.verdict;
    }
    return ChainVerdict::Refuse;
}

}  // namespace wfoal
