// SPDX-License-Identifier: Apache-2.0
//
// The files of a process that posix_spawn() starts.
#ifndef WFOAL_PROCESS_SPAWNACTIONS_H
#define WFOAL_PROCESS_SPAWNACTIONS_H

#include <spawn.h>

namespace wfoal {

/// Actions take place in the order in which they were added. Adding one throws std::system_error when it fails, so that
/// no process starts without it.
class SpawnActions {
public:
    SpawnActions();
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions();

    /// Onto itself clears close-on-exec, in the new process only.
    void duplicate(int file, int number);
    void open(int number, const char* path, int flags);
    /// Closes `first` and all above, whether they are close-on-exec or not. With a C library that has no such action,
    /// these are the files that are open when it is added.
    void closeFrom(int first);

    const posix_spawn_file_actions_t* get() const { return &mActions; }

private:
    posix_spawn_file_actions_t mActions{};
};

}  // namespace wfoal

#endif
