// SPDX-License-Identifier: Apache-2.0
#include "tunnel/FilterState.h"

#ifdef WFOAL_HOST_PLATFORM
#include <sstream>

#include "handles/Nftables.h"
#endif

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

constexpr char filterTable[] = "vpn.vpnoal";

}  // namespace

std::string listFilterTables(std::string& tables)
{
    const NftContextPtr context(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context) return "out of memory";
    nft_ctx_buffer_output(context.get());
    nft_ctx_buffer_error(context.get());
    if (nft_run_cmd_from_buffer(context.get(), "list tables") != 0) {
        const std::string error = nft_ctx_get_error_buffer(context.get());
        return error.substr(0, error.find('\n'));
    }
    tables = nft_ctx_get_output_buffer(context.get());
    return {};
}

FilterState filterState()
{
    std::string tables;
    if (!listFilterTables(tables).empty()) return FilterState::Unknown;
    std::istringstream lines(tables);
    std::string table, family, name;
    while (lines >> table >> family >> name) {
        if (name == filterTable) return FilterState::InForce;
    }
    return FilterState::Missing;
}

#else

std::string listFilterTables(std::string&)
{
    return "the device's own platform filters";
}

FilterState filterState()
{
    return FilterState::Unknown;
}

#endif

}  // namespace vpnoalctl
