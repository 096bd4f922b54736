// SPDX-License-Identifier: Apache-2.0
#include "SystemCallKiller.h"

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

namespace testsupport {

namespace {

// Whatever only changes the process itself can be skipped: killed before or after it is the same.
bool changesTheWorld(unsigned long long call)
{
    constexpr unsigned long long calls[] = {
        SYS_openat,   SYS_write,       SYS_pwrite64, SYS_ftruncate, SYS_fsync,  SYS_fdatasync,
        SYS_renameat, SYS_renameat2,   SYS_mkdirat,  SYS_unlinkat,  SYS_fcntl,  SYS_sendto,
        SYS_sendmsg,  SYS_close,       SYS_ioctl,    SYS_linkat,    SYS_fchmod,
#ifdef SYS_mkdir
        SYS_mkdir,    SYS_unlink,      SYS_rename,   SYS_open,
#endif
#ifdef SYS_fcntl64  // 32-bit machines have both, and programs use these
        SYS_fcntl64,  SYS_ftruncate64,
#endif
    };
    return std::find(std::begin(calls), std::end(calls), call) != std::end(calls);
}

}  // namespace

std::optional<bool> runKilledAt(int step, const std::function<void()>& work)
{
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
        raise(SIGSTOP);
        work();
        syscall(SYS_exit_group, 0);  // what a build with counters writes at the end is none of the steps
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) return std::nullopt;
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int stops = 0;
    unsigned long long call = 0;
    while (true) {
        ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        waitpid(child, &status, 0);
        if (WIFEXITED(status) || WIFSIGNALED(status)) return false;
        __ptrace_syscall_info info{};
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
        if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) <= 0) continue;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) call = info.entry.nr;
        if (!changesTheWorld(call) || stops++ < step) continue;
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return true;
    }
}

}  // namespace testsupport
