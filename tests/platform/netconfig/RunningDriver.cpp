// SPDX-License-Identifier: Apache-2.0
#include "RunningDriver.h"
#include "ComesTrue.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace testsupport {

namespace {

std::string nextName()
{
    static int count = 0;
    return "/tmp/driver-" + std::to_string(++count);
}

}  // namespace

RunningDriver::RunningDriver(const std::vector<std::string>& before, const std::vector<std::string>& after,
                             const std::vector<std::string>& prefix)
    : mName(nextName())
{
    const std::string fifo = mName + ".fifo";
    if (mkfifo(fifo.c_str(), 0600) != 0) throw std::runtime_error("cannot make " + fifo);
    std::vector<std::string> command = prefix;
    const auto append = [&command](const std::vector<std::string>& words) {
        command.insert(command.end(), words.begin(), words.end());
    };
    append({"env", "VKLOG_TARGET=stderr", WFOAL_BUILD_DIR "/bin/netconfigDriver"});
    append(before);
    append({"await", fifo});
    append(after);
    const UniqueFd target(open((mName + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    mProcess = ChildProcess(command, target.get());
    const auto waits = [this] { return output().find("waiting\n") != std::string::npos; };
    testsupport::comesTrue([&] { return waits() || !mProcess.running(); });
    if (!waits()) throw std::runtime_error("the driver does not wait: " + output());
}

std::string RunningDriver::output() const
{
    std::ifstream file(mName + ".log");
    return {std::istreambuf_iterator<char>(file), {}};
}

int RunningDriver::finish()
{
    const UniqueFd opened(open((mName + ".fifo").c_str(), O_WRONLY | O_CLOEXEC));
    return mProcess.wait();
}

void RunningDriver::kill()
{
    mProcess.sendSignal(SIGKILL);
    mProcess.wait();
}

}  // namespace testsupport
