// SPDX-License-Identifier: Apache-2.0
#include "run/GuestCommand.h"

#include <system_error>
#include <utility>

#include "CommandError.h"
#include "run/ChangeNotice.h"

namespace vpnoalctl {

namespace {

constexpr char placeholder[] = "{interface}";

std::string withInterface(std::string word, const std::string& name)
{
    constexpr std::size_t length = sizeof placeholder - 1;
    for (auto at = word.find(placeholder); at != std::string::npos; at = word.find(placeholder, at + name.size()))
        word.replace(at, length, name);
    return word;
}

}  // namespace

GuestCommand::GuestCommand(std::vector<std::string> words, std::chrono::seconds limit)
    : mWords(std::move(words)), mLimit(limit)
{
    const std::string name = mWords.at(0);
    try {
        mWords[0] = wfoal::findProgram(name);
    } catch (const std::system_error& error) {
        throw badInput(name, error.code().message(), "give a program that is there; nothing was changed");
    }
}

void GuestCommand::start(const PhysicalInterface& physical)
{
    std::vector<std::string> words = mWords;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string replaced = withInterface(words[i], physical.name);
        if (replaced != words[i] && physical.name.empty()) {
            throw CommandError(words[i], "there is no network to reach the VPN server through",
                               "connect to one; 'vpnoalctl preferred --explain' shows the choice");
        }
        words[i] = replaced;
    }
    setEnvironment(physical);
    try {
        mProcess.emplace(words, wfoal::Subprocess::Sharing::All, wfoal::Subprocess::Files{});
    } catch (const std::system_error& error) {
        throw badInput(words[0], error.code().message(), "give a program that can be started");
    }
}

void GuestCommand::signal(int number)
{
    if (mProcess) mProcess->signal(number);
}

void GuestCommand::end(int number, bool isSignalled)
{
    if (!isSignalled) signal(number);
    if (!mDeadline) mDeadline = Clock::now() + mLimit;
}

std::optional<int> GuestCommand::check()
{
    using Outcome = wfoal::SubprocessResult::Outcome;
    if (!mProcess) return ExitFailed;
    auto ended = mProcess->wait(std::chrono::milliseconds(0));
    if (!ended && mDeadline && Clock::now() >= *mDeadline) ended = mProcess->kill();
    if (!ended) return std::nullopt;
    if (ended->outcome == Outcome::Exited) return ended->code;
    return ended->outcome == Outcome::Killed ? 128 + ended->code : static_cast<int>(ExitFailed);
}

}  // namespace vpnoalctl
