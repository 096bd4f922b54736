// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "openvpn/Hook.h"

int main(int argc, char** argv)
{
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable)
        environment.emplace_back(*variable);
    return vpnoalctl::runHook(argc, argv, environment);
}
