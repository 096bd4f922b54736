// SPDX-License-Identifier: Apache-2.0
//
// Owners of libnftnl objects.
#ifndef HANDLES_NFTNL_H
#define HANDLES_NFTNL_H

#include <libnftnl/chain.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>

#include <memory>

struct NftnlReleaser {
    void operator()(nftnl_table* table) const { nftnl_table_free(table); }
    void operator()(nftnl_chain* chain) const { nftnl_chain_free(chain); }
    void operator()(nftnl_rule* rule) const { nftnl_rule_free(rule); }
    void operator()(nftnl_expr* expression) const { nftnl_expr_free(expression); }
};
using NftnlTablePtr = std::unique_ptr<nftnl_table, NftnlReleaser>;
using NftnlChainPtr = std::unique_ptr<nftnl_chain, NftnlReleaser>;
using NftnlRulePtr = std::unique_ptr<nftnl_rule, NftnlReleaser>;
using NftnlExprPtr = std::unique_ptr<nftnl_expr, NftnlReleaser>;

#endif
