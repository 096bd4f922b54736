// SPDX-License-Identifier: Apache-2.0
#include "completion/Completion.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "CommandError.h"
#include "OptionText.h"

namespace vpnoalctl {

namespace {

bool beginsWith(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* commandNamed(const CLI::App& app, const std::string& name)
{
    for (const CLI::App* command : commandsOf(app)) {
        if (command->get_name() == name) return command;
    }
    return nullptr;
}

// Where the words have led to: the command, and what the next word is.
class Place {
public:
    explicit Place(const CLI::App& program) : mProgram(program), mCommand(&program) {}

    void follow(const std::string& word)
    {
        if (mOption != nullptr) {
            mOption = nullptr;
        } else if (beginsWith(word, "-")) {
            const CLI::Option* const found = optionNamed(word);
            if (found != nullptr && takesValue(*found)) mOption = found;
        } else if (const CLI::App* const inner = commandNamed(*mCommand, word)) {
            mCommand = inner;
            mArguments = 0;
        } else {
            ++mArguments;
        }
    }

    Candidates next(const std::string& typed, const ValueLists& values) const
    {
        Candidates found;
        if (mOption != nullptr) {
            addValues(*mOption, values, found);
        } else if (beginsWith(typed, "-")) {
            found.words = optionNames();
        } else if (!commandsOf(*mCommand).empty()) {
            for (const CLI::App* command : commandsOf(*mCommand))
                found.words.push_back(command->get_name());
        } else if (const CLI::Option* const argument = nextArgument()) {
            addValues(*argument, values, found);
        }
        return found;
    }

private:
    const CLI::Option* optionNamed(const std::string& word) const
    {
        for (const CLI::App* app : {mCommand, &mProgram}) {
            if (const CLI::Option* const found = app->get_option_no_throw(word)) return found;
        }
        return nullptr;
    }

    std::vector<std::string> optionNames() const
    {
        std::set<std::string> names;
        for (const CLI::App* app : {mCommand, &mProgram}) {
            for (const CLI::Option* option : app->get_options()) {
                for (const std::string& name : option->get_lnames())
                    names.insert("--" + name);
            }
        }
        return {names.begin(), names.end()};
    }

    // The last argument may take all further words.
    const CLI::Option* nextArgument() const
    {
        const auto arguments =
            mCommand->get_options([](const CLI::Option* option) { return option->get_positional(); });
        if (arguments.empty()) return nullptr;
        if (mArguments < arguments.size()) return arguments[mArguments];
        return arguments.back()->get_items_expected_max() > 1 ? arguments.back() : nullptr;
    }

    static void addValues(const CLI::Option& option, const ValueLists& values, Candidates& found)
    {
        const std::string argument = argumentOf(option);
        if (const auto list = values.find(argument); list != values.end()) found.words = list->second();
        if (argument == "PROFILE") found.files = "*.json";
        if (argument == "FILE" || argument == "CERT" || argument == "COMMAND") found.files = "*";
    }

    const CLI::App& mProgram;
    const CLI::App* mCommand;
    const CLI::Option* mOption = nullptr;  // whose value comes next
    std::size_t mArguments = 0;            // that the command has been given
};

}  // namespace

Candidates complete(const CLI::App& program, const std::vector<std::string>& words, const ValueLists& values)
{
    if (words.empty()) return {};
    Place place(program);
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
        place.follow(words[i]);
    const std::string& typed = words.back();
    Candidates found = place.next(typed, values);
    found.words.erase(std::remove_if(found.words.begin(), found.words.end(),
                                     [&](const std::string& word) { return !beginsWith(word, typed); }),
                      found.words.end());
    return found;
}

int printCompletion(const CLI::App& program, char** words, int count)
{
    const std::vector<std::string> typed(words, words + count);
    const auto plugin = std::find(typed.begin(), typed.end(), "--plugin");
    const std::string pluginPath = typed.end() - plugin > 1 ? *(plugin + 1) : "";
    const Candidates found = complete(program, typed, deviceValues(pluginPath));
    for (const std::string& word : found.words)
        std::printf("%s\n", word.c_str());
    if (!found.files.empty()) std::printf(":files %s\n", found.files.c_str());
    return std::fflush(stdout) == 0 ? ExitOk : ExitFailed;
}

}  // namespace vpnoalctl
