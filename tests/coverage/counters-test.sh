#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# counters-test.sh: in a coverage build nothing is lost, and nothing counted twice, when processes fork, end at once, are
# killed, abort or become another program. The files stay whole when a tracer makes writes fail.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
if ! command -v gcc >/dev/null || ! command -v gcov >/dev/null; then
    echo 'skipped: there is no gcc with gcov'
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
gcc -std=gnu11 -O2 -fPIC -shared -Wl,-soname,libcounters.so -o libcounters.so "$here/counters.c"
gcc -std=gnu11 -O2 -fPIC -c -o object.o "$here/object.c"
hooks=(object.o '-Wl,--no-as-needed' "$work/libcounters.so" "-Wl,-rpath,$work")

cat >library.c <<'END'
int called(int way);
int called(int way)
{
    switch (way) {
    case 1: return 11;
    case 2: return 12;
    case 3: return 13;
    case 4: return 14;
    default: return 10;
    }
}
END
cat >program.c <<'END'
#define _GNU_SOURCE
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
int called(int way);
static int endOf(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}
int main(int count, char** arguments)
{
    if (count > 2) return kill(atoi(arguments[2]), SIGKILL);
    if (count > 1) return called(0) - 10;
    called(0);
    pid_t child = fork();
    if (child == 0) {
        called(1);
        _exit(0);
    }
    if (endOf(child) != 0) return 1;
    int ends[2];
    if (pipe(ends) != 0) return 2;
    child = fork();
    if (child == 0) {
        called(2);
        if (write(ends[1], "x", 1) == 1) pause();
        _exit(0);
    }
    char byte;
    if (read(ends[0], &byte, 1) != 1) return 3;
    kill(child, SIGKILL);
    if (endOf(child) != SIGKILL) return 4;
    child = fork();
    if (child == 0) {
        called(3);
        abort();
    }
    if (endOf(child) != SIGABRT) return 5;
    called(4);
    char* again[] = {arguments[0], "again", NULL};
    execv(arguments[0], again);
    return 6;
}
END
cat >stranger.c <<'END'
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
static void note(int number)
{
    (void)number;
    close(creat("asked", 0600));
}
int main(void)
{
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number)
        signal(number, note);
    close(creat("ready", 0600));
    for (;;)
        pause();
}
END
# As the product is compiled: where extensions are on, gcc itself takes care of fork and exec.
gcc --coverage -std=c11 -fPIC -c library.c
gcc --coverage -shared -o libcounted.so library.o "${hooks[@]}"
gcc --coverage -std=c11 -c program.c
gcc --coverage -o program program.o "$work/libcounted.so" "${hooks[@]}"
gcc -o stranger stranger.c
ulimit -c 0
./program || { echo "the program ended with $?"; exit 1; }
./stranger &
until [ -e ready ]; do sleep 0.01; done
./program kill $! || { echo "the killing program ended with $?"; exit 1; }
wait $! 2>/dev/null || true
killings=1 traced=0
if strace -o /dev/null true 2>/dev/null; then
    mkdir unread
    for traced in 1 2 3; do
        TMPDIR=$work/unread strace -f -qq -o /dev/null -e trace=write -e inject=write:error=ENOSPC:when=$traced ./program again ||
            { echo "the traced program ended with $?"; exit 1; }
    done
fi

gcov --stdout library.gcda program.gcda >counts
failed=0
expect() {
    grep -qE "^ +$1: +[0-9]+:.*$2" counts || { echo "not $1 times: $2"; failed=1; }
}
expect $((6 + traced)) 'switch \(way\)'
expect 1 'return 11;'
expect 1 'return 12;'
expect 1 'return 13;'
expect 1 'return 14;'
expect $((2 + traced)) 'return 10;'
expect 1 'called\(4\);'
expect $((2 + killings + traced)) 'if \(count > 2\)'
expect $((2 + traced)) 'if \(count > 1\)'
[ ! -e asked ] || { echo 'a program without counters was asked to write them'; failed=1; }
[ $failed = 0 ] || cat counts
exit $failed
