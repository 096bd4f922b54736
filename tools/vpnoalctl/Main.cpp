// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

int main(int argc, char** argv)
{
    return vpnoalctl::runMain("vpnoalctl", vpnoalctl::run, argc, argv);
}
