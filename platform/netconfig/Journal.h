// SPDX-License-Identifier: Apache-2.0
//
// The journal of changes under /run/vknetconfig: for each subject ("interface-norvatun0") one entry that tells how to
// take back what is, or may be, in force. It is written whole and synced before anything is changed, so whoever finds
// it after a crash can clean up. An entry belongs to the process that holds its lock, for as long as that process
// lives; an entry without a living owner was left behind. Entries of an earlier boot are worth nothing and vanish.
//
// A child of fork holds none of its parent's locks; it needs a journal of its own. One process has one journal.
//
// Not thread-safe: the library's one mutex guards it. Failures throw a RequestError with the key "journal".
#ifndef VKNETCONFIG_JOURNAL_H
#define VKNETCONFIG_JOURNAL_H

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "handles/UniqueFd.h"

namespace vknetconfig {

class Journal {
public:
    explicit Journal(std::string folder = "/run/vknetconfig");

    /// The lock that lets one request at a time work, over all processes. Every other operation needs it.
    class Turn {
    public:
        Turn() = default;
        explicit Turn(UniqueFd lock) : mLock(std::move(lock)) {}

    private:
        UniqueFd mLock;
    };

    /// Waits for the turn, 10 seconds at most.
    /// mustExist: a request that changes something; the folder is made. Otherwise a missing folder is an empty journal.
    Turn takeTurn(bool mustExist);

    /// Makes this process the owner of the subject; throws, naming the process, when another living one is. Returns the
    /// content in force: what this process wrote, or what a dead one left; empty when there is none.
    std::string own(const std::string& subject);

    bool owns(const std::string& subject) const { return mOwned.count(subject) != 0; }

    /// Replaces the content of an owned subject. When this returns it is on the disk; when it throws, the earlier
    /// content still is.
    void write(const std::string& subject, std::string_view content);

    /// The content in force, whoever owns it; empty when there is none.
    std::string read(const std::string& subject) const;

    /// Takes the entry away, whoever owns it, and gives up ownership. Without an entry nothing happens.
    void erase(const std::string& subject);

    /// Gives up the ownership of a subject that has no content.
    void release(const std::string& subject);

    /// Subjects that a dead process of this boot and network namespace left; this process owns them now. Discards what
    /// is left of earlier boots on its way.
    std::vector<std::string> takeLeftBehind();

private:
    std::set<std::string> subjects() const;
    std::string textOf(const std::string& name) const;
    UniqueFd lockOf(const std::string& subject, pid_t& holder) const;

    std::string mFolderPath;
    std::string mBoot;    // how an entry of this boot begins
    std::string mOrigin;  // how one of this boot and network namespace begins
    UniqueFd mFolder;
    std::map<std::string, UniqueFd> mOwned;
};

}  // namespace vknetconfig

#endif
