// SPDX-License-Identifier: Apache-2.0
//
// The host platform's undo log, read only: the entries of this boot and network namespace, and who owns them. It takes
// no lock, so no request waits for a reader.
#ifndef VPNOALCTL_UNDOLOGFOLDER_H
#define VPNOALCTL_UNDOLOGFOLDER_H

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include "handles/UniqueFd.h"
#include "undolog/UndoLogEntry.h"

namespace vpnoalctl {

struct Owner {
    enum class State {
        None,  // nobody owns the entry
        Lives,
        Ended,
    };
    State state = State::None;
    pid_t process = 0;      // 0: not known here
    std::string program;    // of a living process; empty: not known
    std::time_t since = 0;  // when it became the owner
};

bool operator==(const Owner& left, const Owner& right);

struct LogEntry {
    std::string subject;  // "interface-norvatun0"
    std::string content;
    std::string fault;  // why there is no content; empty when it could be read
    Owner owner;
};

bool operator==(const LogEntry& left, const LogEntry& right);

class UndoLogFolder {
public:
    /// Throws CommandError when the folder is there and may not be read.
    explicit UndoLogFolder(const std::string& path);

    /// Sorted by subject. Throws CommandError.
    std::vector<LogEntry> entries() const;

    /// Whether a request is being carried out now.
    bool isBeingChanged() const;

private:
    UniqueFd openFile(const std::string& name) const;
    LogEntry entryOf(const std::string& stem) const;
    Owner ownerOf(const std::string& stem, int version) const;

    std::string mPath;
    wfoal::Origin mOrigin;
    UniqueFd mFolder;  // invalid when there is none
};

}  // namespace vpnoalctl

#endif
