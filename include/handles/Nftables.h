// SPDX-License-Identifier: Apache-2.0
//
// Owners of libnftables objects.
#ifndef HANDLES_NFTABLES_H
#define HANDLES_NFTABLES_H

#include <nftables/libnftables.h>

#include <memory>

struct NftContextReleaser {
    void operator()(nft_ctx* context) const { nft_ctx_free(context); }
};
using NftContextPtr = std::unique_ptr<nft_ctx, NftContextReleaser>;

#endif
