// SPDX-License-Identifier: Apache-2.0
#include "OpenSslBinding.h"

#include <dlfcn.h>
#include <link.h>
#include <openssl/opensslv.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#define WFOAL_TEXT_OF(value) #value
#define WFOAL_EXPANDED_TEXT_OF(value) WFOAL_TEXT_OF(value)

namespace wfoal {

namespace {

constexpr char libraryName[] = "libcrypto.so." WFOAL_EXPANDED_TEXT_OF(OPENSSL_SHLIB_VERSION);
constexpr char decisiveFunction[] = "X509_verify_cert";

struct LibraryCloser {
    void operator()(void* library) const { dlclose(library); }
};
using LibraryPtr = std::unique_ptr<void, LibraryCloser>;

// A file that the loader has mapped.
struct LoadedFile {
    const char* name = "no file";
    ElfW(Addr) base = 0;
    ElfW(Addr) begin = 0;
    ElfW(Addr) end = 0;
    const ElfW(Dyn) * dynamic = nullptr;

    bool holds(const void* address) const
    {
        const auto place = reinterpret_cast<std::uintptr_t>(address);
        return begin <= place && place < end;
    }
};

LoadedFile describe(const dl_phdr_info& info)
{
    LoadedFile file;
    file.name = info.dlpi_name[0] == '\0' ? "the program" : info.dlpi_name;
    file.base = info.dlpi_addr;
    file.begin = UINTPTR_MAX;
    for (int i = 0; i < info.dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info.dlpi_phdr[i];
        const ElfW(Addr) place = file.base + header.p_vaddr;
        if (header.p_type == PT_DYNAMIC) file.dynamic = reinterpret_cast<const ElfW(Dyn)*>(place);
        if (header.p_type != PT_LOAD) continue;
        file.begin = std::min(file.begin, place);
        file.end = std::max(file.end, place + header.p_memsz);
    }
    return file;
}

LoadedFile fileAt(const void* address)
{
    struct Question {
        const void* address;
        LoadedFile answer;
    } question = {address, {}};
    const auto visit = [](dl_phdr_info* info, std::size_t, void* context) {
        auto& asked = *static_cast<Question*>(context);
        const LoadedFile file = describe(*info);
        if (!file.holds(asked.address)) return 0;
        asked.answer = file;
        return 1;
    };
    dl_iterate_phdr(visit, &question);
    return question.answer;
}

const ElfW(Dyn) * findEntry(const LoadedFile& file, ElfW(Sxword) tag)
{
    for (const ElfW(Dyn)* entry = file.dynamic; entry != nullptr && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == tag) return entry;
    }
    return nullptr;
}

std::size_t numberFrom(const LoadedFile& file, ElfW(Sxword) tag)
{
    const ElfW(Dyn)* const entry = findEntry(file, tag);
    return entry != nullptr ? entry->d_un.d_val : 0;
}

// Some loaders write the address into the section, others leave the offset.
template <typename T>
const T* tableFrom(const LoadedFile& file, ElfW(Sxword) tag)
{
    const ElfW(Dyn)* const entry = findEntry(file, tag);
    if (entry == nullptr) return nullptr;
    const ElfW(Addr) place = entry->d_un.d_ptr;
    return reinterpret_cast<const T*>(place < file.base ? file.base + place : place);
}

// A function that a file refers to by name, as the loader has bound it.
struct Reference {
    const ElfW(Sym) & symbol;
    const char* name;
    const void* bound;
};

template <typename Info>
constexpr std::size_t symbolIndex(Info info)
{
    constexpr unsigned typeBits = sizeof(ElfW(Addr)) == 8 ? 32 : 8;
    return static_cast<std::size_t>(info >> typeBits);
}

template <typename Relocation, typename Visitor>
void visitTable(const LoadedFile& file, ElfW(Sxword) tag, ElfW(Sxword) sizeTag, const Visitor& visit)
{
    const auto* const relocations = tableFrom<Relocation>(file, tag);
    const auto* const symbols = tableFrom<ElfW(Sym)>(file, DT_SYMTAB);
    const auto* const names = tableFrom<char>(file, DT_STRTAB);
    const std::size_t count = relocations != nullptr ? numberFrom(file, sizeTag) / sizeof(Relocation) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t index = symbolIndex(relocations[i].r_info);
        // What is defined elsewhere may have no type.
        const unsigned type = symbols[index].st_info & 0xfU;
        if (index == 0 || (type != STT_FUNC && type != STT_NOTYPE)) continue;
        const void* bound = nullptr;
        std::memcpy(&bound, reinterpret_cast<const void*>(file.base + relocations[i].r_offset), sizeof bound);
        visit(Reference{symbols[index], names + symbols[index].st_name, bound});
    }
}

template <typename Visitor>
void visitReferences(const LoadedFile& file, const Visitor& visit)
{
    visitTable<ElfW(Rela)>(file, DT_RELA, DT_RELASZ, visit);
    visitTable<ElfW(Rel)>(file, DT_REL, DT_RELSZ, visit);
    if (numberFrom(file, DT_PLTREL) == DT_RELA) {
        visitTable<ElfW(Rela)>(file, DT_JMPREL, DT_PLTRELSZ, visit);
    } else {
        visitTable<ElfW(Rel)>(file, DT_JMPREL, DT_PLTRELSZ, visit);
    }
}

// In a program at a fixed address a function of a library may have an entry that leads to it. The program's symbol
// has the entry's address then, and no definition.
bool isEntryOfProgram(const void* address)
{
    const LoadedFile program = fileAt(address);
    bool isEntry = false;
    visitReferences(program, [&](const Reference& reference) {
        const ElfW(Sym)& symbol = reference.symbol;
        if (symbol.st_shndx != SHN_UNDEF || symbol.st_value == 0) return;
        isEntry = isEntry || reinterpret_cast<const void*>(program.base + symbol.st_value) == address;
    });
    return isEntry;
}

class Search {
public:
    Search(void* library, const LoadedFile& ours)
        : mLibrary(library), mOurs(ours), mCrypto(fileAt(dlsym(library, decisiveFunction)))
    {
    }

    ForeignFunction run()
    {
        if (mCrypto.dynamic == nullptr) return {decisiveFunction, mCrypto.name};
        visitReferences(mOurs, [this](const Reference& reference) {
            const void* const meant = dlsym(mLibrary, reference.name);
            if (mCrypto.holds(meant)) judge(reference, meant);
        });
        visitReferences(mCrypto, [this](const Reference& reference) {
            if (reference.symbol.st_shndx == SHN_UNDEF) return;
            judge(reference, reinterpret_cast<const void*>(mCrypto.base + reference.symbol.st_value));
        });
        return mFound;
    }

private:
    void judge(const Reference& reference, const void* meant)
    {
        if (mFound.name != nullptr || reference.bound == meant || mOurs.holds(reference.bound)) return;
        const void* bound = reference.bound;
        // In the library, but elsewhere: bound at the first call, which then finds what a search finds now.
        if (mCrypto.holds(bound)) bound = dlsym(RTLD_DEFAULT, reference.name);
        if (mCrypto.holds(bound) || mOurs.holds(bound) || isEntryOfProgram(bound)) return;
        mFound = {reference.name, fileAt(bound).name};
    }

    void* mLibrary;
    LoadedFile mOurs;
    LoadedFile mCrypto;
    ForeignFunction mFound;
};

}  // namespace

ForeignFunction findForeignOpenSslFunction()
{
    const LoadedFile ours = fileAt(libraryName);
    const LibraryPtr library(dlopen(libraryName, RTLD_LAZY | RTLD_NOLOAD));
    if (library) return Search(library.get(), ours).run();
    // Without the library, OpenSSL is linked into this file, or its functions belong to another one.
    const auto* const decisive = reinterpret_cast<const void*>(X509_verify_cert);
    return ours.holds(decisive) ? ForeignFunction{} : ForeignFunction{decisiveFunction, fileAt(decisive).name};
}

}  // namespace wfoal
