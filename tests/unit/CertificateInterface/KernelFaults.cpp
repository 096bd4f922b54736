// SPDX-License-Identifier: Apache-2.0
#include "KernelFaults.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "EndLeakCheck.h"

namespace testsupport {

namespace {

struct {
    bool armed = false;
    KernelCall call{};
    long first = 0;
    long count = 0;
    int error = 0;
    long seen = 0;
} sFault;

}  // namespace

const char* nameOf(KernelCall call)
{
    static const char* const names[] = {"open", "read", "stat and fstat"};
    static_assert(sizeof names / sizeof *names == static_cast<std::size_t>(KernelCall::Count), "one name a kind");
    return names[static_cast<int>(call)];
}

void failKernelCalls(KernelCall call, long first, long count, int error)
{
    sFault = {true, call, first, count, error, 0};
}

long endKernelFaults()
{
    sFault.armed = false;
    return sFault.seen;
}

#ifdef __x86_64__

namespace {

// A call with this sixth argument, which none of the caught calls has, is the handler's own and goes through.
constexpr unsigned passThrough = 0x5afe5afe;

KernelCall kindOf(long number)
{
    if (number == SYS_openat) return KernelCall::Open;
    if (number == SYS_read) return KernelCall::Read;
    return KernelCall::Status;
}

bool failsNow(KernelCall kind)
{
    if (!sFault.armed || sFault.call != kind) return false;
    ++sFault.seen;
    return sFault.seen >= sFault.first && sFault.seen - sFault.first < sFault.count;
}

void handleCall(int, siginfo_t*, void* context)
{
    const int savedErrno = errno;
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const long number = registers[REG_RAX];
    if (failsNow(kindOf(number))) {
        registers[REG_RAX] = -sFault.error;
    } else {
        const long result = syscall(number, registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                                    registers[REG_R10], registers[REG_R8], static_cast<unsigned long>(passThrough));
        registers[REG_RAX] = result == -1 ? -errno : result;
    }
    errno = savedErrno;
}

}  // namespace

std::string catchKernelCalls()
{
    // The process that makes the check inherits the filter and not the handler: it would die of its first call, and
    // this one wait for it for ever.
    endWithoutLeakCheck();
    struct sigaction action {};
    action.sa_sigaction = handleCall;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    if (sigaction(SIGSYS, &action, nullptr) != 0) return std::strerror(errno);
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 5 * sizeof(__u64)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, passThrough, 6, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_read, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_stat, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstat, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_newfstatat, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    };
    const sock_fprog filter = {sizeof program / sizeof *program, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return std::strerror(errno);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) return std::strerror(errno);
    return "";
}

#else

std::string catchKernelCalls()
{
    return "written for x86-64 only";
}

#endif

}  // namespace testsupport
