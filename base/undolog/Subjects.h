// SPDX-License-Identifier: Apache-2.0
//
// What an entry of the undo log is about, as the name of its file says it: an interface, the guard of an interface, or
// the table of a packet filter.
#ifndef WFOAL_SUBJECTS_H
#define WFOAL_SUBJECTS_H

#include <algorithm>
#include <string>
#include <string_view>

namespace wfoal {

inline constexpr std::string_view interfaceSubjects = "interface-";
inline constexpr std::string_view guardSubjects = "guard-";
inline constexpr std::string_view filterSubjects = "firewall-";

/// Whether a subject is one of a kind.
inline bool isSubjectOf(std::string_view kind, std::string_view subject)
{
    return subject.substr(0, kind.size()) == kind;
}

/// Subjects are names of files; '%' is in no table's name.
inline std::string filterSubject(std::string table)
{
    std::replace(table.begin(), table.end(), '/', '%');
    return std::string(filterSubjects) + table;
}

/// The table of such a subject.
inline std::string filterTable(std::string_view subject)
{
    std::string table(subject.substr(filterSubjects.size()));
    std::replace(table.begin(), table.end(), '%', '/');
    return table;
}

/// The table of an interface's guard: "vknetconfig-guard-norvatun0".
inline std::string guardTable(const std::string& ifName)
{
    return "vknetconfig-guard-" + ifName;
}

/// The chains of such tables that the kernel runs by itself. A guard has no chain for what arrives.
inline constexpr char inputChain[] = "_input";
inline constexpr char outputChain[] = "_output";
inline constexpr char forwardChain[] = "_forward";

}  // namespace wfoal

#endif
