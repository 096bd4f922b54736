// SPDX-License-Identifier: Apache-2.0
//
// isolate COMMAND [ARGUMENT...]: runs a command in the private namespaces that the tests run in.
#include <unistd.h>

#include <cstdio>

#include "Isolation.h"

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: isolate COMMAND [ARGUMENT...]\n");
        return 2;
    }
    const std::string reason = testsupport::enterPrivateNamespaces();
    if (!reason.empty()) {
        std::fprintf(stderr, "isolate: no private namespaces: %s\n", reason.c_str());
        return 77;
    }
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    return 127;
}
