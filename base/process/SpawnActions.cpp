// SPDX-License-Identifier: Apache-2.0
#include "process/SpawnActions.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "handles/Stdio.h"

namespace wfoal {

namespace {

void check(int error)
{
    if (error != 0) throw std::system_error(error, std::generic_category());
}

#ifndef __GLIBC__
// Also the descriptor that lists them, which is closed by then: closing it again does nothing.
void closeEachFrom(posix_spawn_file_actions_t* actions, int first)
{
    const DirPtr files(opendir("/proc/self/fd"));
    if (!files) check(errno);
    errno = 0;
    while (const dirent* entry = readdir(files.get())) {
        const int file = std::atoi(entry->d_name);
        if (file >= first) check(posix_spawn_file_actions_addclose(actions, file));
        errno = 0;
    }
    check(errno);
}
#endif

}  // namespace

SpawnActions::SpawnActions()
{
    check(posix_spawn_file_actions_init(&mActions));
}

SpawnActions::~SpawnActions()
{
    posix_spawn_file_actions_destroy(&mActions);
}

void SpawnActions::duplicate(int file, int number)
{
    check(posix_spawn_file_actions_adddup2(&mActions, file, number));
}

void SpawnActions::open(int number, const char* path, int flags)
{
    check(posix_spawn_file_actions_addopen(&mActions, number, path, flags, 0));
}

void SpawnActions::closeFrom(int first)
{
#ifdef __GLIBC__
    check(posix_spawn_file_actions_addclosefrom_np(&mActions, first));
#else
    closeEachFrom(&mActions, first);
#endif
}

}  // namespace wfoal
