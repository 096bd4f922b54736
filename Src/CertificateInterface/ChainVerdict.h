// SPDX-License-Identifier: Apache-2.0
//
// What a failed chain verification means for the user: a pure function of OpenSSL's error code.
#ifndef WFOAL_CHAINVERDICT_H
#define WFOAL_CHAINVERDICT_H

namespace wfoal {

enum class ChainVerdict {
    AskUser,            ///< The user may decide to trust the server.
    SelfSignedInChain,  ///< Not refused for the chain; the name decides.
    SelfSignedServer,   ///< Not refused for the chain; the name decides.
    Refuse,
};

/// `error` as X509_STORE_CTX_get_error() gives it.
ChainVerdict chainVerdict(int error);

}  // namespace wfoal

#endif
