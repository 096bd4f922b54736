// SPDX-License-Identifier: Apache-2.0
//
// Entries of the undo log, of any shape: what is read is written as it is read again. The first byte chooses the kind.
#include <cstdlib>
#include <string>
#include <string_view>

#include "json/JsonError.h"
#include "resolved/LinkDns.h"
#include "undolog/GuardRules.h"
#include "undolog/InterfaceRecord.h"
#include "undolog/UndoLogEntry.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

template <class Content>
void checkContent(std::string_view text)
{
    try {
        const std::string written = Content::decode(text).encode();
        require(Content::decode(written).encode() == written);
    } catch (const wfoal::JsonError& error) {
        const std::string line = error.what();
        require(line.rfind("undo log", 0) == 0 && line.find('\n') == std::string::npos && line.size() < 400);
    }
}

void checkHead(std::string_view text)
{
    const wfoal::Origin origin{"01234567-89ab-cdef-0123-456789abcdef", "c7", "4026531840"};
    const wfoal::EntryHead head = wfoal::readEntryHead(text, origin);
    require(head.content <= text.size());
    const std::string own = wfoal::entryHead(origin) + std::string(text);
    const wfoal::EntryHead again = wfoal::readEntryHead(own, origin);
    require(again.kind == wfoal::EntryKind::Here && own.substr(again.content) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    if (size == 0) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0] % 4) {
    case 0: checkContent<wfoal::InterfaceRecord>(text); break;
    case 1: checkContent<wfoal::GuardRules>(text); break;
    case 2: checkContent<wfoal::LinkChange>(text); break;
    default: checkHead(text);
    }
    return 0;
}
