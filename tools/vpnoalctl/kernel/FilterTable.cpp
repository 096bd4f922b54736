// SPDX-License-Identifier: Apache-2.0
#include "kernel/FilterTable.h"

#include <netinet/in.h>  // before the kernel's header of the same names

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "CommandError.h"
#include "handles/UniqueFd.h"
#include "netlink/Attributes.h"
#include "netlink/NetlinkAnswer.h"
#include "undolog/TableMark.h"

namespace vpnoalctl {

namespace {

using wfoal::Attributes;

// A request about the tables of the family inet, or about what is in one of them. 0 or an errno value.
int ask(std::uint16_t type, std::uint16_t flags, std::uint16_t nameAttribute, const std::string& table,
        const std::function<void(const nlmsghdr&)>& visit)
{
    constexpr std::uint32_t sequence = 1;
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (!socket.valid()) return errno;
    alignas(nlmsghdr) std::array<char, 512> bytes{};
    nlmsghdr* const request = mnl_nlmsg_put_header(bytes.data());
    request->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type);
    request->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    request->nlmsg_seq = sequence;
    auto* const head = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
    head->nfgen_family = NFPROTO_INET;
    head->version = NFNETLINK_V0;
    if (!mnl_attr_put_strz_check(request, bytes.size(), nameAttribute, table.c_str())) return ENAMETOOLONG;
    if (send(socket.get(), request, request->nlmsg_len, 0) < 0) return errno;
    wfoal::NetlinkDatagram datagram;
    return wfoal::receiveAnswer(socket.get(), datagram, sequence, visit);
}

std::uint64_t bigEndian(const nlattr* attribute)
{
    return attribute != nullptr && mnl_attr_validate(attribute, MNL_TYPE_U64) >= 0
               ? be64toh(mnl_attr_get_u64(attribute))
               : 0;
}

struct RuleContent {
    std::size_t expressions = 0;
    bool beginsWithReject = false;
    std::optional<PacketCount> counted;
};

int readExpression(const nlattr* element, void* content)
{
    auto& rule = *static_cast<RuleContent*>(content);
    const Attributes expression(element);
    const std::string name = expression.text(NFTA_EXPR_NAME);
    if (rule.expressions++ == 0) rule.beginsWithReject = name == "reject";
    if (name != "counter") return MNL_CB_OK;
    const Attributes counter(expression.get(NFTA_EXPR_DATA));
    rule.counted =
        PacketCount{bigEndian(counter.get(NFTA_COUNTER_PACKETS)), bigEndian(counter.get(NFTA_COUNTER_BYTES))};
    return MNL_CB_OK;
}

void readRule(const nlmsghdr& message, const std::string& name, FilterTable& table)
{
    const Attributes rule(&message, sizeof(nfgenmsg));
    if (rule.text(NFTA_RULE_TABLE) != name) return;
    RuleContent content;
    const nlattr* const expressions = rule.get(NFTA_RULE_EXPRESSIONS);
    if (expressions != nullptr) mnl_attr_parse_nested(expressions, &readExpression, &content);
    FilterChain& chain = table.chains[rule.text(NFTA_RULE_CHAIN)];
    ++chain.rules;
    chain.rejectsRest = chain.rejectsRest || content.beginsWithReject;
    if (!content.counted) return;
    if (!table.counted) table.counted.emplace();
    table.counted->packets += content.counted->packets;
    table.counted->bytes += content.counted->bytes;
}

// Again when a change interrupts it.
int readRules(const std::string& name, FilterTable& table)
{
    constexpr int mostAttempts = 10;
    int error = EINTR;
    for (int attempt = 0; error == EINTR && attempt < mostAttempts; ++attempt) {
        table.chains.clear();
        table.counted.reset();
        error = ask(NFT_MSG_GETRULE, NLM_F_DUMP, NFTA_RULE_TABLE, name,
                    [&](const nlmsghdr& message) { readRule(message, name, table); });
    }
    return error;
}

bool isMarked(const nlmsghdr& message)
{
    const Attributes table(&message, sizeof(nfgenmsg));
    const nlattr* const data = table.get(NFTA_TABLE_USERDATA);
    if (data == nullptr) return false;
    return wfoal::bearsMark({static_cast<const char*>(mnl_attr_get_payload(data)), mnl_attr_get_payload_len(data)});
}

}  // namespace

int askForTable(const std::string& name, const std::function<void(const nlmsghdr&)>& visit)
{
    return ask(NFT_MSG_GETTABLE, 0, NFTA_TABLE_NAME, name, visit);
}

std::optional<FilterTable> filterTable(const std::string& name)
{
    FilterTable table;
    int error = askForTable(name, [&table](const nlmsghdr& message) { table.isOurs = isMarked(message); });
    if (error == ENOENT) return std::nullopt;
    if (error == 0) error = readRules(name, table);
    if (error != 0) throw systemError("nftables", error, "run it as root");
    return table;
}

}  // namespace vpnoalctl
