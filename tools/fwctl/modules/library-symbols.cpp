#include "tools/fwctl/modules/library-symbols.h"

#include <cstdint>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include "common/daemon/entry-points.h"

namespace fwctl
{

namespace
{
// What the loader keeps of a loaded library's dynamic symbols. The undefined ones stand in front of those
// that the hash table covers.
struct DynamicSymbols {
    const ElfW(Sym) * table = nullptr;
    const char* names = nullptr;
    const uint32_t* gnuHash = nullptr;
    const uint32_t* hash = nullptr;

    uint32_t countToLookAt() const
    {
        if (gnuHash != nullptr) {
            return gnuHash[1]; // index of the first symbol in the table
        }
        return hash != nullptr ? hash[1] : 0;
    }
};

DynamicSymbols dynamicSymbolsOf(void* library)
{
    DynamicSymbols found;
    link_map* map = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 || map->l_ld == nullptr) {
        return found;
    }
    for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
        const auto address = static_cast<uintptr_t>(entry->d_un.d_ptr);
        if (entry->d_tag == DT_SYMTAB) {
            found.table = reinterpret_cast<const ElfW(Sym)*>(address);
        } else if (entry->d_tag == DT_STRTAB) {
            found.names = reinterpret_cast<const char*>(address);
        } else if (entry->d_tag == DT_GNU_HASH) {
            found.gnuHash = reinterpret_cast<const uint32_t*>(address);
        } else if (entry->d_tag == DT_HASH) {
            found.hash = reinterpret_cast<const uint32_t*>(address);
        }
    }
    return found;
}

std::vector<std::string> undefinedSymbols(void* library)
{
    std::vector<std::string> undefined;
    const DynamicSymbols symbols = dynamicSymbolsOf(library);
    if (symbols.table == nullptr || symbols.names == nullptr) {
        return undefined;
    }
    for (uint32_t index = 1; index < symbols.countToLookAt(); ++index) {
        const ElfW(Sym)& symbol = symbols.table[index];
        const bool isNeeded = symbol.st_shndx == SHN_UNDEF && symbol.st_info >> 4 == STB_GLOBAL;
        const char* const name = symbols.names + symbol.st_name;
        dlerror();
        if (isNeeded && dlsym(RTLD_DEFAULT, name) == nullptr && dlsym(library, name) == nullptr &&
            dlerror() != nullptr) {
            undefined.emplace_back(name);
        }
    }
    return undefined;
}
} // namespace

LibrarySymbols inspectLibrary(const std::string& path)
{
    LibrarySymbols found;
    void* library = dlopen(path.c_str(), RTLD_NOW);
    if (library == nullptr) {
        found.loaderError = dlerror();
        library = dlopen(path.c_str(), RTLD_LAZY); // far enough to name everything that is missing
    }
    if (library == nullptr) {
        return found;
    }
    for (const common::EntryPoint& entry : common::kEntryPoints) {
        dlerror();
        if (entry.isRequired && dlsym(library, entry.name) == nullptr && dlerror() != nullptr) {
            found.missing.emplace_back(entry.name);
        }
    }
    if (!found.loaderError.empty()) {
        found.undefined = undefinedSymbols(library);
    }
    return found; // stays open: the child ends right away
}

} // namespace fwctl
