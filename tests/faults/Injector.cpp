// SPDX-License-Identifier: Apache-2.0
//
// Preloaded into a process, it lets the Nth call of a function fail, once or from then on (FaultControl.h).
#include <link.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Strike.h"

// The linker's names for begin and end of the section.
extern "C" {
extern faults::Behind __start_behind[];
extern faults::Behind __stop_behind[];
}

namespace faults {

namespace {

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool holds(const void* address) const
    {
        const auto number = reinterpret_cast<std::uintptr_t>(address);
        return number >= begin && number < end;
    }
};

Range sGlib;
Range sLoader;
Control* spControl = nullptr;
Control sNobodys{};  // until there is one

void noteCode(const dl_phdr_info& info, Range& range)
{
    for (int i = 0; i < info.dlpi_phnum; ++i) {
        if (info.dlpi_phdr[i].p_type != PT_LOAD || (info.dlpi_phdr[i].p_flags & PF_X) == 0) continue;
        range.begin = info.dlpi_addr + info.dlpi_phdr[i].p_vaddr;
        range.end = range.begin + info.dlpi_phdr[i].p_memsz;
    }
}

int noteObject(dl_phdr_info* info, std::size_t, void*)
{
    if (std::strstr(info->dlpi_name, "/libglib-2") != nullptr) noteCode(*info, sGlib);
    if (std::strstr(info->dlpi_name, "/ld-linux") != nullptr) noteCode(*info, sLoader);
    return 0;
}

__attribute__((constructor)) void connectToDriver()
{
    dl_iterate_phdr(noteObject, nullptr);
    for (Behind* behind = __start_behind; behind != __stop_behind; ++behind)
        functionOf(*behind);
    const char* path = std::getenv(controlVariable);
    if (path == nullptr) return;
    Control* const control = mapControl(path);
    // Programs that this process starts have no faults.
    unsetenv("LD_PRELOAD");
    unsetenv(controlVariable);
    if (control == nullptr) return;
    control->blocks = sNobodys.blocks.load();
    spControl = control;
}

bool isCounted(Function function, const void* caller)
{
    if (sLoader.holds(caller)) return false;
    switch (function) {
    case Function::GlibMemory: return sGlib.holds(caller);
    case Function::PthreadCreate: return true;
    default: return !sGlib.holds(caller);
    }
}

}  // namespace

Control& control()
{
    return spControl != nullptr ? *spControl : sNobodys;
}

bool strikes(Function function, const void* caller)
{
    if (spControl == nullptr || spControl->function.load(std::memory_order_relaxed) != static_cast<int>(function)) {
        return false;
    }
    if (!isCounted(function, caller)) return false;
    const long left = spControl->callsLeft.fetch_sub(1);
    if (left > 1 || (left < 1 && !spControl->forEver)) return false;
    ++spControl->struck;
    return true;
}

}  // namespace faults
