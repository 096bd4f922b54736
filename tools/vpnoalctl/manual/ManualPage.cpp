// SPDX-License-Identifier: Apache-2.0
#include "manual/ManualPage.h"

#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "OptionText.h"

namespace vpnoalctl {

namespace {

constexpr char markBegin[] = ".\\\" @";
constexpr char commandWord[] = "command ";

bool beginsWith(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Escaped, so that roff prints it literally.
std::string escaped(const std::string& text)
{
    std::string result = beginsWith(text, ".") || beginsWith(text, "'") ? "\\&" : "";
    for (const char c : text) {
        if (c == '-') {
            result += "\\-";
        } else if (c == '\\') {
            result += "\\e";
        } else {
            result += c;
        }
    }
    return result;
}

std::string bold(const std::string& text)
{
    return "\\fB" + escaped(text) + "\\fR";
}

std::string italic(const std::string& text)
{
    return "\\fI" + escaped(text) + "\\fR";
}

// "-o, --output TEXT", or the argument's name.
std::string headingOf(const CLI::Option& option)
{
    if (option.get_positional()) return italic(argumentOf(option));
    std::string heading;
    for (const std::string& name : option.get_snames())
        heading += (heading.empty() ? "" : ", ") + bold("-" + name);
    for (const std::string& name : option.get_lnames())
        heading += (heading.empty() ? "" : ", ") + bold("--" + name);
    return takesValue(option) ? heading + " " + italic(argumentOf(option)) : heading;
}

bool isHelp(const CLI::Option& option)
{
    return option.check_lname("help") || option.check_lname("help-all");
}

std::string described(const CLI::Option& option)
{
    return ".TP\n" + headingOf(option) + "\n" + escaped(option.get_description()) + ".\n";
}

std::string synopsisOf(const std::string& name, const std::vector<const CLI::Option*>& options)
{
    std::string line = bold("vpnoalctl " + name);
    for (const CLI::Option* option : options) {
        const std::string heading = option->get_positional() ? italic(argumentOf(*option)) : headingOf(*option);
        line += option->get_required() ? " " + heading : " [" + heading + "]";
    }
    return line + "\n";
}

// The footer of a command's help; empty when it is the common one.
std::string footerOf(const CLI::App& command, const CLI::App& program)
{
    const std::string footer = command.get_footer();
    return footer.empty() || footer == program.get_footer() ? "" : footer.substr(footer.find_first_not_of('\n'));
}

std::string commandText(const std::string& name, const CLI::App& command, const CLI::App& program)
{
    const auto options = command.get_options([](const CLI::Option* option) { return !isHelp(*option); });
    std::string text = ".SS " + escaped(name) + "\n" + synopsisOf(name, options) + ".PP\n" +
                       escaped(command.get_description()) + ".\n";
    const std::string footer = footerOf(command, program);
    if (!footer.empty()) text += escaped(footer) + "\n";
    for (const CLI::Option* option : options)
        text += described(*option);
    return text + ".PP\n";
}

std::string optionsText(const CLI::App& program)
{
    std::string text;
    for (const CLI::Option* option : program.get_options())
        text += described(*option);
    return text;
}

// What each mark is replaced by.
std::map<std::string, std::string> replacementsOf(const CLI::App& program)
{
    std::map<std::string, std::string> replacements{{"options", optionsText(program)}};
    const auto all = [](const CLI::App*) { return true; };
    for (const CLI::App* command : program.get_subcommands(all)) {
        const auto inner = command->get_subcommands(all);
        const std::string name = command->get_name();
        if (inner.empty()) replacements[commandWord + name] = commandText(name, *command, program);
        for (const CLI::App* each : inner) {
            const std::string both = name + " " + each->get_name();
            replacements[commandWord + both] = commandText(both, *each, program);
        }
    }
    return replacements;
}

}  // namespace

std::string manualPage(const std::string& text, const CLI::App& program)
{
    const auto replacements = replacementsOf(program);
    std::set<std::string> used;
    std::istringstream lines(text);
    std::string page;
    for (std::string line; std::getline(lines, line);) {
        if (!beginsWith(line, markBegin)) {
            page += line + "\n";
            continue;
        }
        const std::string mark = line.substr(sizeof markBegin - 1, line.rfind('@') - (sizeof markBegin - 1));
        const auto found = replacements.find(mark);
        if (found == replacements.end())
            throw std::runtime_error("'" + mark + "' is marked, and there is no such thing");
        page += found->second;
        used.insert(mark);
    }
    for (const auto& [mark, replacement] : replacements) {
        if (used.count(mark) == 0) throw std::runtime_error("the manual page has no mark for '" + mark + "'");
    }
    return page;
}

}  // namespace vpnoalctl
