// SPDX-License-Identifier: Apache-2.0
//
// Runs a target with the seeds alone, where there is no fuzzer: STEM FOLDER. A seed that makes the target abort ends
// the program, whose last line names it.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size);

namespace {

// All seeds are read before the first runs, because a target may hide the folder by mounting over it.
std::map<std::string, std::string> seedsIn(const char* folder)
{
    std::map<std::string, std::string> seeds;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        std::ifstream file(entry.path(), std::ios::binary);
        seeds[entry.path().filename()] = {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    return seeds;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const auto seeds = seedsIn(argv[1]);
    for (const auto& [name, text] : seeds) {
        std::printf("%s, %zu bytes\n", name.c_str(), text.size());
        std::fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    }
    if (seeds.empty()) std::fprintf(stderr, "%s: there are no seeds\n", argv[1]);
    return seeds.empty() ? 1 : 0;
}
