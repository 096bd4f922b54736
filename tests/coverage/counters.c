// SPDX-License-Identifier: Apache-2.0
//
// libcounters.so, which everything in a coverage build loads: writes the coverage counters where a process ends or is
// replaced without running its exit handlers. gcc keeps counters of each library apart, so each registers its own.
//
// A forked child starts with counters of zero, or what its parent has counted would count twice.
//
// kill(PID, SIGKILL) asks the other process to write its counters and to kill itself; it dies of the same signal, a few
// milliseconds later. One that does not is killed. What the kernel or a shell kills is not counted.
//
// A debugger that makes system calls fail would have them fail in libgcov too, and damage the files. So a traced process
// leaves the writing to a child that is not traced. One that its tracer kills is not counted.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

enum { mostObjects = 64, millisecondsToWrite = 3000, secondsOfChild = 30 };

typedef void (*Function)(void);
struct Object {
    Function write;
    Function reset;
};
static struct Object sObjects[mostObjects];

void countersRegister(Function write, Function reset);
void countersUnregister(Function write);

void countersRegister(Function write, Function reset)
{
    for (int i = 0; i < mostObjects; ++i) {
        if (sObjects[i].write != NULL) continue;
        sObjects[i].reset = reset;
        sObjects[i].write = write;
        return;
    }
}

static void resetAll(void)
{
    for (int i = 0; i < mostObjects; ++i) {
        if (sObjects[i].write != NULL) sObjects[i].reset();
    }
}

static void writeEach(void)
{
    for (int i = 0; i < mostObjects; ++i) {
        if (sObjects[i].write != NULL) sObjects[i].write();
    }
}

struct Status {
    unsigned long long caught;  // signals with a handler, a bit each
    int tracer;
};

static int readStatus(pid_t process, struct Status* status)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", (int)process);
    FILE* const file = fopen(path, "re");
    if (file == NULL) return 0;
    memset(status, 0, sizeof *status);
    char line[256];
    while (fgets(line, sizeof line, file) != NULL && sscanf(line, "SigCgt: %llx", &status->caught) != 1) {
        sscanf(line, "TracerPid: %d", &status->tracer);
    }
    fclose(file);
    return 1;
}

static int sIsTraced;  // from its start: strace begins before the program does

static void writeInChild(void)
{
    const pid_t child = (pid_t)syscall(SYS_clone, CLONE_UNTRACED | SIGCHLD, 0, 0, 0, 0);
    if (child == 0) {
        signal(SIGALRM, SIG_DFL);  // another thread may have held a lock when this one was made
        alarm(secondsOfChild);
        unsetenv("GCOV_PREFIX");
        unsetenv("GCOV_PREFIX_STRIP");
        unsetenv("GCOV_ERROR_FILE");
        writeEach();
        syscall(SYS_exit_group, 0);
    }
    int status;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

static void writeAll(void)
{
    const int before = errno;
    if (sIsTraced) {
        writeInChild();
    } else {
        writeEach();
    }
    resetAll();
    errno = before;
}

// libgcov writes once more when the process ends. What a traced process writes then goes to files that nobody reads.
static void divertLastWrite(void)
{
    const char* const folder = getenv("TMPDIR");
    setenv("GCOV_PREFIX", folder != NULL ? folder : "/tmp", 1);
    setenv("GCOV_PREFIX_STRIP", "99", 1);  // no folder of the path
    setenv("GCOV_ERROR_FILE", "/dev/null", 1);
}

// At the end of the object.
void countersUnregister(Function write)
{
    if (sIsTraced) {
        writeAll();
        divertLastWrite();
    }
    for (int i = 0; i < mostObjects; ++i) {
        if (sObjects[i].write == write) sObjects[i].write = NULL;
    }
}

static int askingSignal(void)
{
    return SIGRTMAX - 2;
}

static void writeAndDie(int number)
{
    (void)number;
    writeAll();
    syscall(SYS_kill, getpid(), SIGKILL);
}

__attribute__((constructor)) static void prepare(void)
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = &writeAndDie;
    sigaction(askingSignal(), &action, NULL);
    pthread_atfork(NULL, NULL, &resetAll);
    struct Status status;
    sIsTraced = readStatus(getpid(), &status) && status.tracer != 0;
}

// Other programs may have a handler of their own for the signal.
static int hasOurHandler(pid_t process)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/maps", (int)process);
    FILE* const file = fopen(path, "re");
    if (file == NULL) return 0;
    int found = 0;
    char line[512];
    while (!found && fgets(line, sizeof line, file) != NULL) {
        found = strstr(line, "/libcounters.so") != NULL;
    }
    fclose(file);
    return found;
}

// One that is traced stops for its tracer, who is about to kill it.
static int canBeAsked(pid_t process)
{
    struct Status status;
    return readStatus(process, &status) && status.tracer == 0 && (status.caught >> (askingSignal() - 1) & 1) != 0 &&
           hasOurHandler(process);
}

static int askToDie(pid_t process)
{
    const int before = errno;
    const int end = (int)syscall(SYS_pidfd_open, process, 0);
    if (end < 0) {
        errno = before;
        return 0;
    }
    struct pollfd ended = {end, POLLIN, 0};
    const int died = canBeAsked(process) && syscall(SYS_kill, process, askingSignal()) == 0 &&
                     poll(&ended, 1, millisecondsToWrite) == 1;
    close(end);
    errno = before;
    return died;
}

int kill(pid_t process, int number)
{
    if (number == SIGKILL && process == getpid()) writeAll();
    if (number == SIGKILL && process > 1 && process != getpid() && askToDie(process)) return 0;
    return (int)syscall(SYS_kill, process, number);
}

static Function next(const char* name)
{
    Function found;
    *(void**)&found = dlsym(RTLD_NEXT, name);
    return found;
}

void _exit(int code)
{
    writeAll();
    for (;;) {
        syscall(SYS_exit_group, code);
    }
}

void _Exit(int code)
{
    _exit(code);
}

void abort(void)
{
    writeAll();
    ((void (*)(void))next("abort"))();
    for (;;) {
    }
}

int execve(const char* path, char* const arguments[], char* const environment[])
{
    writeAll();
    return ((int (*)(const char*, char* const[], char* const[]))next("execve"))(path, arguments, environment);
}

int execv(const char* path, char* const arguments[])
{
    writeAll();
    return ((int (*)(const char*, char* const[]))next("execv"))(path, arguments);
}

int execvp(const char* file, char* const arguments[])
{
    writeAll();
    return ((int (*)(const char*, char* const[]))next("execvp"))(file, arguments);
}
