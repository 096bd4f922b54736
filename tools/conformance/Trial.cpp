// SPDX-License-Identifier: Apache-2.0
#include "Trial.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <system_error>

#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace conformance {

namespace {

// The child writes one letter for the result, then the reason, into a memory file, so that it never waits for a reader.
constexpr char letters[] = "obu";

[[noreturn]] void runInChild(const Promise& promise, const Settings& settings, int answer, int log)
{
    alarm(settings.secondsAtMost);
    dup2(log, STDERR_FILENO);
    // The host platform then logs to stderr. Other platforms may ignore this.
    setenv("VKLOG_TARGET", "stderr", 1);
#ifdef M_PERTURB               // not every C library has it
    mallopt(M_PERTURB, 0xa5);  // freed memory does not keep its content
#endif
    std::string text(1, letters[0]);
    try {
        Platform platform(settings);
        promise.check(platform);
    } catch (const Broken& broken) {
        text = letters[1] + broken.reason;
    } catch (const Untestable& untestable) {
        text = letters[2] + untestable.reason;
    } catch (const std::exception& error) {
        text = letters[1] + std::string(error.what());
    }
    const bool written = write(answer, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(written ? 0 : 1);
}

UniqueFd memoryFile(const char* name)
{
    UniqueFd file(memfd_create(name, MFD_CLOEXEC));
    if (!file.valid()) throw std::system_error(errno, std::generic_category(), "memfd_create");
    fcntl(file.get(), F_SETFL, O_APPEND);
    return file;
}

std::string endOf(int status, unsigned int secondsAtMost)
{
    if (!WIFSIGNALED(status)) return "ended the process with exit code " + std::to_string(WEXITSTATUS(status));
    if (WTERMSIG(status) == SIGALRM) return "did not return within " + std::to_string(secondsAtMost) + " seconds";
    return std::string("ended the process: ") + strsignal(WTERMSIG(status));
}

}  // namespace

Verdict tryPromise(const Promise& promise, const Settings& settings)
{
    const UniqueFd answer = memoryFile("answer");
    const UniqueFd log = memoryFile("log");
    const pid_t child = fork();
    if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0) runInChild(promise, settings, answer.get(), log.get());
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    lseek(answer.get(), 0, SEEK_SET);
    const auto text = wfoal::readWhole(answer.get());
    if (status != 0 || !text || text->empty()) return {Result::NotOk, endOf(status, settings.secondsAtMost)};
    return {static_cast<Result>(std::strchr(letters, text->front()) - letters), text->substr(1)};
}

}  // namespace conformance
