// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl storage: the agent's files, through the plug-in's storage interface only. Names are passed on unchanged.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "CommandError.h"
#include "Context.h"
#include "HeldLog.h"
#include "Json.h"
#include "Progress.h"
#include "commands/Commands.h"
#include "handles/UniqueFd.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t nameSize = 256;          // of the buffers that EnumerateFiles() fills
constexpr std::size_t block = 1u << 20;        // what is read or written at once
constexpr std::uint64_t largest = 0x7fffffff;  // a larger file cannot be loaded again

struct LocationName {
    const char* name;
    KEST_FileLocation location;
};

constexpr LocationName locations[] = {
    {"main", LOCATION_MAIN}, {"root", LOCATION_ROOT},     {"user", LOCATION_USER}, {"profile", LOCATION_PROFILE},
    {"l10n", LOCATION_L10N}, {"script", LOCATION_SCRIPT}, {"temp", LOCATION_TEMP},
};

struct Request {
    std::string location;
    std::string name;
    std::string file;

    KEST_FileLocation locationId() const
    {
        for (const LocationName& each : locations) {
            if (location == each.name) return each.location;
        }
        throw badInput("location '" + location + "'", "there is none of that name",
                       "use main, root, user, profile, l10n, script or temp");
    }
    std::string label() const { return "storage " + location + " " + name; }
};

std::shared_ptr<Request> declare(CLI::App& options, bool named)
{
    auto request = std::make_shared<Request>();
    options.add_option("LOCATION", request->location, "main, root, user, profile, l10n, script or temp")->required();
    if (named) options.add_option("NAME", request->name, "The file's name there")->required();
    return request;
}

CommandError failure(const Request& request, const std::string& why, const std::string& remedy)
{
    return CommandError(request.label(), why, remedy);
}

const char* kindOf(const KEST_FileInformation& information)
{
    if ((information.flags & KEST_FILE_REGULAR) != 0) return "file";
    return (information.flags & KEST_FILE_DIRECTORY) != 0 ? "directory" : "other";
}

// JSON is UTF-8. A name that is not valid UTF-8 also gets its bytes in hexadecimal.
void addName(const JsonPtr& object, const std::string& name)
{
    const std::string shown = validUtf8(name);
    addText(object, "name", shown);
    if (shown == name) return;
    std::string hex;
    for (const char c : name)
        hex += fmt::format("{:02x}", static_cast<unsigned char>(c));
    addText(object, "nameHex", hex);
}

// --- ls ---

std::vector<std::string> list(KEST_StoragePlugin& storage, const Request& request)
{
    std::vector<std::array<char, nameSize>> buffers;
    for (;;) {
        std::vector<char*> names;
        names.reserve(buffers.size());
        for (auto& buffer : buffers)
            names.push_back(buffer.data());
        auto count = static_cast<unsigned int>(buffers.size());
        const PluginResult result = storage.EnumerateFiles(request.locationId(), count, names.data());
        if (result == PLUGIN_SUCCESS) {
            buffers.resize(count);
            break;
        }
        if (result != PLUGIN_BUFFER_TOO_SMALL) {
            throw failure(request, "the location could not be listed",
                          "look at the log above; a root that was just created is listed at the next try");
        }
        buffers.resize(count);
    }
    std::vector<std::string> result;
    result.reserve(buffers.size());
    for (const auto& buffer : buffers)
        result.emplace_back(buffer.data(), strnlen(buffer.data(), buffer.size()));
    std::sort(result.begin(), result.end());
    return result;
}

int runList(Context& context, const Request& request)
{
    request.locationId();
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    Table table{{{"name", "NAME"}, {"kind", "KIND"}, {"size", "SIZE"}}, {}};
    const JsonPtr array = newArray();
    for (const std::string& name : list(*storage, request)) {
        KEST_FileInformation information{};
        const bool known = storage->SimpleStat(request.locationId(), name.c_str(), information) == PLUGIN_SUCCESS;
        const char* kind = known ? kindOf(information) : "unknown";
        const auto size = static_cast<std::uint64_t>(information.size);
        table.rows.push_back({name, kind, known ? plainSize(size) : "-"});
        JsonPtr entry = newObject();
        addName(entry, name);
        addText(entry, "kind", kind);
        if (known) addNumber(entry, "size", information.size);
        append(array, std::move(entry));
    }
    if (context.output.json()) {
        context.output.value(array);
    } else {
        context.output.table(table);
    }
    return ExitOk;
}

// --- get ---

std::vector<unsigned char> load(KEST_StoragePlugin& storage, const Request& request)
{
    std::vector<unsigned char> buffer;
    for (int attempt = 0; attempt < 10; ++attempt) {
        auto size = static_cast<unsigned int>(buffer.size());
        const PluginResult result = storage.LoadFile(request.locationId(), request.name.c_str(),
                                                     buffer.empty() ? nullptr : buffer.data(), size);
        if (result == PLUGIN_SUCCESS) {
            buffer.resize(buffer.empty() ? 0 : size);
            return buffer;
        }
        if (result != PLUGIN_BUFFER_TOO_SMALL) {
            throw failure(request, "the file could not be loaded",
                          "see whether 'vpnoalctl storage ls " + request.location + "' shows it");
        }
        // Ask for one byte more than expected; not receiving it signals end of file.
        buffer.resize(std::size_t{size} + 1);
    }
    throw failure(request, "the file keeps growing", "try again when nobody writes to it");
}

// Loading a file logs lines at error level although nothing failed. They are shown only when loading fails.
std::vector<unsigned char> loadQuietly(KEST_StoragePlugin& storage, const Request& request, bool showLog)
{
    HeldLog log(!showLog);
    try {
        return load(storage, request);
    } catch (const CommandError&) {
        log.show();
        throw;
    }
}

void writeToFile(int target, const std::string& label, const std::vector<unsigned char>& bytes, bool showProgress)
{
    Progress progress(stderr, "writing " + label, bytes.size(), showProgress);
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t written = ::write(target, bytes.data() + done, std::min(block, bytes.size() - done));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) throw systemError(label, errno, "free the disk or choose another file");
        done += static_cast<std::size_t>(written);
        progress.advance(static_cast<std::uint64_t>(written));
    }
}

int runGet(Context& context, const Request& request)
{
    request.locationId();
    if (context.output.json() && request.file.empty()) {
        throw badInput("--json", "the file's content is no JSON", "name a file for it with --output");
    }
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    const std::vector<unsigned char> bytes = loadQuietly(*storage, request, context.settings.showLog);
    if (request.file.empty()) {
        writeToFile(STDOUT_FILENO, "stdout", bytes, true);
        return ExitOk;
    }
    UniqueFd target(::open(request.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!target.valid()) throw systemError(request.file, errno, "choose a file that can be written");
    writeToFile(target.get(), request.file, bytes, !context.output.json());
    if (::close(target.release()) != 0) throw systemError(request.file, errno, "free the disk or choose another file");
    const JsonPtr value = newObject();
    addName(value, request.name);
    addText(value, "output", validUtf8(request.file));
    addNumber(value, "size", static_cast<std::int64_t>(bytes.size()));
    context.output.value(value);
    context.output.line("Loaded " + plainSize(bytes.size()) + " into " + request.file + ".", Style::Good);
    return ExitOk;
}

// --- put ---

std::vector<unsigned char> readFromFile(const std::string& file, bool showProgress)
{
    const bool isStandardInput = file.empty() || file == "-";
    const UniqueFd source(isStandardInput ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                          : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const std::string label = isStandardInput ? "stdin" : file;
    struct stat status {};
    if (!source.valid() || ::fstat(source.get(), &status) != 0) {
        throw badInput(label, std::strerror(errno), "name a file that can be read");
    }
    const auto tooLarge = [&label] { return badInput(label, "2 GiB and more could not be loaded again"); };
    const auto total = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    if (total > largest) throw tooLarge();

    Progress progress(stderr, "reading " + label, total, showProgress && (total != 0 || !S_ISREG(status.st_mode)));
    std::vector<unsigned char> bytes;
    bytes.reserve(static_cast<std::size_t>(total) + block);
    for (std::size_t done = 0;;) {
        bytes.resize(done + block);
        const ssize_t got = ::read(source.get(), bytes.data() + done, block);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw badInput(label, std::strerror(errno), "name a file that can be read");
        done += static_cast<std::size_t>(got);
        if (done > largest) throw tooLarge();
        if (got == 0) {
            bytes.resize(done);
            return bytes;
        }
        progress.advance(static_cast<std::uint64_t>(got));
    }
}

int runPut(Context& context, const Request& request)
{
    request.locationId();
    const std::vector<unsigned char> bytes = readFromFile(request.file, !context.output.json());
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    if (storage->SaveFile(request.locationId(), request.name.c_str(), bytes.data(),
                          static_cast<unsigned int>(bytes.size())) != PLUGIN_SUCCESS) {
        throw failure(request, "the file could not be saved",
                      "'vpnoalctl storage ls " + request.location +
                          "' creates a missing location; a partly written file may be there");
    }
    const JsonPtr value = newObject();
    addName(value, request.name);
    addNumber(value, "size", static_cast<std::int64_t>(bytes.size()));
    context.output.value(value);
    context.output.line("Saved " + plainSize(bytes.size()) + ".", Style::Good);
    return ExitOk;
}

// --- rm, stat, map ---

int runRemove(Context& context, const Request& request)
{
    request.locationId();
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    if (storage->DeleteFile(request.locationId(), request.name.c_str()) != PLUGIN_SUCCESS) {
        throw failure(request, "the file could not be deleted",
                      "see whether 'vpnoalctl storage ls " + request.location + "' shows it as a file");
    }
    const JsonPtr value = newObject();
    addName(value, request.name);
    addFlag(value, "deleted", true);
    context.output.value(value);
    context.output.line("Deleted " + request.name + ".", Style::Good);
    return ExitOk;
}

int runStat(Context& context, const Request& request)
{
    request.locationId();
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    KEST_FileInformation information{};
    if (storage->SimpleStat(request.locationId(), request.name.c_str(), information) != PLUGIN_SUCCESS) {
        throw failure(request, "there is no such file, or it has 2 GiB and more",
                      "see what 'vpnoalctl storage ls " + request.location + "' shows");
    }
    const JsonPtr value = newObject();
    addName(value, request.name);
    addText(value, "kind", kindOf(information));
    addNumber(value, "size", information.size);
    context.output.value(value);
    context.output.line(std::string(kindOf(information)) + ", " +
                        plainSize(static_cast<std::uint64_t>(information.size)));
    return ExitOk;
}

int runMap(Context& context, const Request& request)
{
    request.locationId();
    const auto storage = context.plugin().create<KEST_StoragePlugin>();
    void* address = nullptr;
    unsigned int size = 0;
    if (storage->SimpleMapFile(request.locationId(), request.name.c_str(), address, size) != PLUGIN_SUCCESS) {
        throw failure(request, "the file could not be mapped",
                      "look at the log above; an empty file and a directory cannot be mapped");
    }
    const std::string start = fmt::format("0x{:x}", reinterpret_cast<std::uintptr_t>(address));
    if (storage->SimpleUnmapFile(address) != PLUGIN_SUCCESS) {
        throw failure(request, "the mapping could not be ended", "look at the log above");
    }
    const JsonPtr value = newObject();
    addName(value, request.name);
    addText(value, "address", start);
    addNumber(value, "size", size);
    context.output.value(value);
    context.output.line("Mapped " + plainSize(size) + " at " + start + " and unmapped them.", Style::Good);
    return ExitOk;
}

Action actionOf(int (*run)(Context&, const Request&), std::shared_ptr<Request> request)
{
    return [run, request = std::move(request)](Context& context) { return run(context, *request); };
}

}  // namespace

Action defineStorageList(CLI::App& options)
{
    options.footer("A location that does not exist yet is created.");
    return actionOf(runList, declare(options, false));
}

Action defineStorageGet(CLI::App& options)
{
    auto request = declare(options, true);
    options.add_option("-o,--output", request->file, "Where the content goes; else stdout");
    return actionOf(runGet, std::move(request));
}

Action defineStoragePut(CLI::App& options)
{
    auto request = declare(options, true);
    options.add_option("FILE", request->file, "Where the content comes from; else stdin");
    return actionOf(runPut, std::move(request));
}

Action defineStorageRemove(CLI::App& options)
{
    return actionOf(runRemove, declare(options, true));
}

Action defineStorageStat(CLI::App& options)
{
    return actionOf(runStat, declare(options, true));
}

Action defineStorageMap(CLI::App& options)
{
    return actionOf(runMap, declare(options, true));
}

}  // namespace vpnoalctl
