// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLogEntry.h"

#include <optional>

namespace wfoal {

namespace {

constexpr std::string_view versionWord = "vknetconfig ";
constexpr std::string_view bootWord = "boot ";
constexpr std::string_view namespaceWord = "namespace ";

// Takes the line "WORD VALUE" from the beginning and returns its value.
std::optional<std::string_view> takeLine(std::string_view& text, std::string_view word)
{
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || text.substr(0, word.size()) != word) return std::nullopt;
    const std::string_view value = text.substr(word.size(), end - word.size());
    text.remove_prefix(end + 1);
    return value;
}

}  // namespace

EntryHead readEntryHead(std::string_view text, const Origin& origin)
{
    const std::size_t size = text.size();
    EntryHead head;
    head.kind = EntryKind::Unknown;
    const auto version = takeLine(text, versionWord);
    if (version != "1" && version != "2") return head;
    const auto boot = takeLine(text, bootWord);
    const auto place = takeLine(text, namespaceWord);
    if (!boot || !place) return head;
    head.version = version == "1" ? 1 : 2;
    head.content = size - text.size();
    const bool isHere = place == (head.version == 1 ? origin.namespaceInode : origin.networkNamespace);
    head.kind = boot != origin.boot ? EntryKind::OtherBoot : isHere ? EntryKind::Here : EntryKind::Elsewhere;
    return head;
}

std::string entryHead(const Origin& origin)
{
    std::string head;
    head.append(versionWord).append("2\n").append(bootWord).append(origin.boot).append("\n");
    head.append(namespaceWord).append(origin.networkNamespace).append("\n");
    return head;
}

}  // namespace wfoal
