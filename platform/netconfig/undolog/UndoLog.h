// SPDX-License-Identifier: Apache-2.0
//
// The undo log under /run/vknetconfig: for each subject ("interface-norvatun0") of a network namespace one entry that
// says how to undo what is, or may be, installed. It is written completely and synced before anything is changed, so
// any process can clean up after a crash. An entry belongs to the process that holds its lock, as long as that process
// lives; an entry without a living owner is stale. Subjects are those of the calling thread's network namespace; the
// entries of other ones are not touched. Entries of an earlier boot are removed. Entries of an unknown version are
// kept; requests for their subject are refused.
//
// A child of fork holds none of its parent's locks; it needs an undo log of its own. One process has one undo log.
//
// Not thread-safe: the library's one mutex guards it. Failures throw a RequestError with the key "undo log"; then
// nothing is owned that was not owned before.
#ifndef VKNETCONFIG_UNDOLOG_H
#define VKNETCONFIG_UNDOLOG_H

#include <sys/types.h>

#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "handles/UniqueFd.h"
#include "undolog/UndoLogEntry.h"
#include "undolog/UndoLogFiles.h"

namespace vknetconfig {

class UndoLog {
public:
    explicit UndoLog(std::string folder = wfoal::undoLogFolder);

    /// Held by the one request that is being carried out, over all processes. Every other operation needs it.
    class Lock {
    public:
        Lock() = default;
        explicit Lock(UniqueFd lock) : mLock(std::move(lock)) {}

    private:
        UniqueFd mLock;
    };

    /// Whether lock() makes a missing folder. A request that installs something needs it.
    enum class Create { No, Yes };

    /// Waits for the lock, 10 seconds at most. A missing folder that is not made is an empty undo log.
    Lock lock(Create create);

    /// Makes this process the owner of the subject; throws, naming the process, when another living one is. Returns the
    /// content of the entry: what this process wrote, or what an ended one left; empty when there is none.
    std::string own(const std::string& subject);

    /// The same for a request that only removes. Without entry and lock nothing is owned. With VKNETCONFIG_TAKE_OVER=1
    /// in the environment the subject of another living process is taken from it.
    std::string ownForRemoval(const std::string& subject);

    /// Of the calling thread at the last lock().
    const std::string& networkNamespace() const { return mOrigin.networkNamespace; }

    bool owns(const std::string& subject) const { return mOwned.count(stemOf(subject)) != 0; }

    /// Replaces the content of an owned subject. After a return it is on the disk; after an exception the earlier
    /// content is.
    void write(const std::string& subject, std::string_view content);

    /// The content of the entry, whoever owns it; empty when there is none.
    std::string read(const std::string& subject) const;

    /// A function that any thread may call at any time. It returns whether the entry of the subject still has this
    /// line, and throws when the entry cannot be read.
    std::function<bool()> lineCheck(const std::string& subject, const std::string& line) const;

    /// Removes the entry of an owned subject and gives up ownership. Without ownership nothing happens.
    void erase(const std::string& subject);

    /// Gives up the ownership of a subject; its entry stays.
    void release(const std::string& subject);

    /// Makes this process the owner of the stale entries of this boot and network namespace whose subject is wanted.
    /// Returns the subjects.
    std::vector<std::string> claimStaleEntries(const std::function<bool(const std::string& subject)>& isWanted);

    /// A subject that another process took from this one; `by` is 0 when its files were only removed.
    struct Lost {
        std::string subject;
        pid_t by = 0;
    };
    /// The subjects lost since the last call, which this process owns no more.
    std::vector<Lost> takeLost();

private:
    std::string stemOf(std::string_view subject) const;
    std::set<std::string> stems() const;
    std::optional<std::string> textOf(const std::string& name, std::size_t most = std::string::npos) const;
    wfoal::EntryHead headIn(const std::optional<std::string>& text) const;
    wfoal::EntryHead headOf(const std::string& stem) const;
    bool exists(const std::string& name) const;
    UniqueFd lockOf(const std::string& stem, pid_t& holder) const;
    void removeEntry(const std::string& stem) const;
    void removeFiles(const std::string& stem) const;
    void releaseLock(const std::string& stem, const std::string& name);
    bool upgrade(const std::string& subject, pid_t& holder);
    void takeFromHolder(const std::string& stem);
    std::string subjectOf(const std::string& stem);
    void reportUnknown(const std::string& stem);

    std::string mFolderPath;
    wfoal::Origin mOrigin;  // of the calling thread at the last lock()
    UniqueFd mFolder;
    std::map<std::string, UniqueFd> mOwned;  // the locks, by stem
    std::set<std::string> mReported;         // entries of an unknown version that were logged
};

/// Gives up the ownership of a subject at the end of the scope, unless this process owned it before or keep() was
/// called. So a refused request takes over nothing.
class NewOwnership {
public:
    NewOwnership(UndoLog& undoLog, std::string subject)
        : mUndoLog(undoLog), mSubject(std::move(subject)), mIsKept(undoLog.owns(mSubject))
    {
    }
    NewOwnership(const NewOwnership&) = delete;
    NewOwnership& operator=(const NewOwnership&) = delete;
    ~NewOwnership()
    {
        try {
            if (!mIsKept) mUndoLog.release(mSubject);
        } catch (const std::exception&) {
            // No memory for a name: it stays owned, and the next request for the subject continues with that.
        }
    }
    void keep() { mIsKept = true; }

private:
    UndoLog& mUndoLog;
    std::string mSubject;
    bool mIsKept;
};

}  // namespace vknetconfig

#endif
