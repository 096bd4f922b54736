// SPDX-License-Identifier: Apache-2.0
//
// faultSweep OPERATION DENSE [FUNCTION MODE NUMBER [alone]]: the sweep of one operation, from that place on, in the
// namespaces that it finds itself in. It needs the injector preloaded; the script `run` does all that. A line of its
// output is "at FUNCTION MODE NUMBER" before each attempt, "finding …" or "end …" (Sweep.cpp).
// faultSweep --names: the operations; faultSweep --functions: the functions.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "Sweep.h"

namespace faults {

namespace {

constexpr char controlFile[] = "/tmp/fault-control";
constexpr int endedByFinding = 3;  // exit code: the next process goes on behind it

Entries operations()
{
    Entries all;
    for (const auto table : {systemOperations, certificateOperations, fileOperations, networkOperations, busOperations,
                             serviceOperations}) {
        for (const Entry& entry : table())
            all.push_back(entry);
    }
    return all;
}

int run(const Entry& entry, long dense, Place place, bool isAlone)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    const std::unique_ptr<Operation> operation = entry.make();
    Sweep sweep(entry, *operation, dense);
    try {
        sweep.warmUp();
    } catch (const Finding& finding) {
        std::printf("finding none once 0 without a fault: %s\n", finding.what());
        return 1;
    }
    try {
        sweep.run(place, isAlone);
    } catch (const Finding&) {
        return endedByFinding;
    }
    return 0;
}

}  // namespace

Control& Operation::control() const
{
    static Control* const own = mapControl(controlFile);
    return *own;
}

}  // namespace faults

int main(int argc, char** argv)
{
    using namespace faults;
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "--names") {
        for (const Entry& entry : operations())
            std::puts(entry.name);
        return 0;
    }
    if (command == "--functions") {
        for (const char* name : functionNames)
            std::puts(name);
        return 0;
    }
    for (const Entry& entry : operations()) {
        if (argc < 3 || command != entry.name) continue;
        Place place;
        if (argc > 5) place = {std::atoi(argv[3]), std::atoi(argv[4]) != 0, std::atol(argv[5])};
        try {
            return run(entry, std::atol(argv[2]), place, argc > 6);
        } catch (const std::exception& error) {
            std::printf("stopped %s\n", error.what());
            return 1;
        }
    }
    std::fprintf(stderr, "usage: faultSweep OPERATION DENSE [FUNCTION MODE NUMBER [alone]], --names or --functions\n");
    return 2;
}
