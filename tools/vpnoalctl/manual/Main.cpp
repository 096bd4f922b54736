// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl-manual: a filter that makes the manual page of vpnoalctl from its text, when the program is built.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <iterator>

#include "Application.h"
#include "manual/ManualPage.h"

int main()
{
    try {
        CLI::App program;
        vpnoalctl::Settings settings;
        std::optional<vpnoalctl::Action> chosen;
        vpnoalctl::defineProgram(program, settings, chosen);
        const std::string text{std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
        std::cout << vpnoalctl::manualPage(text, program) << std::flush;
        return std::cout ? 0 : 1;
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "vpnoalctl-manual: %s\n", error.what()));
        return 1;
    }
}
