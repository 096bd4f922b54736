// SPDX-License-Identifier: Apache-2.0
#include "Platform.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "VkLogLib.h"

namespace conformance {

namespace {

long entriesOf(const char* folder)
{
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator(folder), Iterator());
}

}  // namespace

void Platform::Unloader::operator()(void* library) const
{
    dlclose(library);
}

void Platform::load(const std::string& header)
{
    if (mLoaded.count(header) != 0) return;
    // The other libraries may log through the log library under test.
    if (header != "VkLogLib.h") load("VkLogLib.h");
    const std::string& file = mSettings.libraries.at(header);
    void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) throw Broken{std::string("the library cannot be loaded: ") + dlerror()};
    mLoaded[header].reset(library);
}

void Platform::unload(const std::string& header)
{
    mLoaded.erase(header);
    void* stillThere = dlopen(mSettings.libraries.at(header).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (stillThere == nullptr) return;
    dlclose(stillThere);
    throw Broken{"the library stays in memory after dlclose()"};
}

void* Platform::symbol(const std::string& header, const char* name)
{
    load(header);
    void* found = dlsym(mLoaded[header].get(), name);
    if (found == nullptr) throw Broken{std::string(name) + " is not exported"};
    return found;
}

std::string Platform::log() const
{
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = pread(STDERR_FILENO, part, sizeof part, static_cast<off_t>(text.size()))) > 0;) {
        text.append(part, static_cast<std::size_t>(size));
    }
    return text;
}

void Platform::requireVisibleLog()
{
    constexpr char text[] = "conformance check begins";
    function<decltype(VkLogPrint)>("VkLogLib.h", "VkLogPrint")(nullptr, 3, "%s", text);
    if (log().find(text) == std::string::npos) {
        throw Untestable{"the log does not go to stderr, where it could be read"};
    }
}

ProcessResources currentResources()
{
    return {entriesOf("/proc/self/fd"), entriesOf("/proc/self/task")};
}

void expectNothingLeft(const ProcessResources& before)
{
    ProcessResources now = currentResources();
    for (int tries = 0; tries < 40 && now.threads > before.threads; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        now = currentResources();
    }
    expect(now.threads <= before.threads, std::to_string(now.threads - before.threads) + " threads are left");
    expect(now.descriptors <= before.descriptors,
           std::to_string(now.descriptors - before.descriptors) + " descriptors are left");
}

}  // namespace conformance
