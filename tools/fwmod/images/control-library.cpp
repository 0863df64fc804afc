#include "tools/fwmod/images/control-library.h"

#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <gelf.h>
#include <libelf.h>
#include <memory>
#include <set>
#include <unistd.h>

#include "common/daemon/entry-points.h"
#include "common/files/unique-fd.h"
#include "common/terminal/visible-text.h"
#include "src/src/fw-update-library.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/damaged.h"

namespace fwmod
{

namespace
{
constexpr std::string_view kGnuName{ELF_NOTE_GNU, sizeof ELF_NOTE_GNU}; // its terminator counts

struct ElfRelease {
    void operator()(Elf* elf) const { elf_end(elf); }
};

bool isExported(const GElf_Sym& symbol)
{
    const unsigned int binding = GELF_ST_BIND(symbol.st_info);
    const unsigned int visibility = GELF_ST_VISIBILITY(symbol.st_other);
    return symbol.st_shndx != SHN_UNDEF && (binding == STB_GLOBAL || binding == STB_WEAK) &&
           (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

struct Exports {
    bool isListed = false;
    std::set<std::string> names;
    std::set<std::string> own; // not weak, as what C++ exports in every library alike is
};

void collectExports(Elf* elf, Elf_Scn* section, const GElf_Shdr& header, Exports& exports)
{
    Elf_Data* const data = elf_getdata(section, nullptr);
    if (data == nullptr || header.sh_entsize == 0) {
        return;
    }
    exports.isListed = true;
    const GElf_Xword count = data->d_size / header.sh_entsize;
    for (GElf_Xword index = 0; index < count && index <= INT32_MAX; ++index) {
        GElf_Sym symbol;
        if (gelf_getsym(data, static_cast<int>(index), &symbol) == nullptr || !isExported(symbol)) {
            continue;
        }
        const char* const name = elf_strptr(elf, header.sh_link, symbol.st_name);
        if (name == nullptr) {
            continue;
        }
        exports.names.insert(name);
        if (GELF_ST_BIND(symbol.st_info) != STB_WEAK) {
            exports.own.insert(name);
        }
    }
}

Exports exportsOf(Elf* elf)
{
    Exports exports;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
        GElf_Shdr header;
        if (gelf_getshdr(section, &header) != nullptr && header.sh_type == SHT_DYNSYM) {
            collectExports(elf, section, header, exports);
        }
    }
    return exports;
}

// Empty when the section holds none.
std::string buildIdIn(Elf_Data* data)
{
    GElf_Nhdr note;
    std::size_t name = 0;
    std::size_t description = 0;
    for (std::size_t at = 0; (at = gelf_getnote(data, at, &note, &name, &description)) > 0;) {
        const auto* const bytes = static_cast<const char*>(data->d_buf);
        if (note.n_type == NT_GNU_BUILD_ID && std::string_view(bytes + name, note.n_namesz) == kGnuName) {
            return {bytes + description, note.n_descsz};
        }
    }
    return "";
}

std::string buildIdOf(Elf* elf)
{
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
        GElf_Shdr header;
        Elf_Data* const data = elf_getdata(section, nullptr);
        if (data == nullptr || gelf_getshdr(section, &header) == nullptr || header.sh_type != SHT_NOTE) {
            continue;
        }
        if (std::string found = buildIdIn(data); !found.empty()) {
            return found;
        }
    }
    return "";
}

// The C++ name of a function outside of any namespace or class begins like this, whatever its parameters.
std::string mangledNameOf(const std::string& function, const std::set<std::string>& names)
{
    const std::string beginning = "_Z" + std::to_string(function.size()) + function;
    const auto found = names.lower_bound(beginning);
    return found != names.end() && found->compare(0, beginning.size(), beginning) == 0 ? *found : "";
}

constexpr const char* kTooShort = "the file ends too soon";

// What the dynamic loader refuses in a part that it is to map.
std::string refusalOf(const GElf_Phdr& part)
{
    constexpr GElf_Xword kMostMemory = GElf_Xword{1} << 32;
    constexpr GElf_Xword kSmallestPage = 4096;
    if (part.p_memsz < part.p_filesz || part.p_memsz > kMostMemory) {
        return "a part of it cannot be " + std::to_string(part.p_memsz) + " bytes in memory";
    }
    if (part.p_align % kSmallestPage != 0 || ((part.p_vaddr - part.p_offset) & (part.p_align - 1)) != 0) {
        return "a part of it cannot be mapped where it belongs";
    }
    return "";
}

// False when the file has not what it says.
bool readParts(Elf* elf, std::vector<GElf_Phdr>& parts)
{
    std::size_t count = 0;
    if (elf_getphdrnum(elf, &count) != 0) {
        return false;
    }
    GElf_Phdr part;
    while (parts.size() < count && gelf_getphdr(elf, static_cast<int>(parts.size()), &part) != nullptr) {
        parts.push_back(part);
    }
    return parts.size() == count;
}

// The loader goes by the program headers alone, whatever the sections say.
std::string damageOf(Elf* elf, const GElf_Ehdr& header, std::uintmax_t fileSize)
{
    std::vector<GElf_Phdr> parts;
    if (!readParts(elf, parts)) {
        return kTooShort;
    }
    std::vector<LibraryPart> known;
    std::set<GElf_Word> types;
    for (const GElf_Phdr& part : parts) {
        known.push_back({part.p_type, part.p_offset, part.p_filesz, part.p_vaddr, part.p_memsz});
        types.insert(part.p_type);
    }
    if (!isWhole(known, fileSize)) {
        return kTooShort;
    }
    for (const GElf_Phdr& part : parts) {
        if (std::string refusal = part.p_type == PT_LOAD ? refusalOf(part) : ""; !refusal.empty()) {
            return refusal;
        }
    }
    if (types.count(PT_LOAD) == 0 || header.e_phentsize != gelf_fsize(elf, ELF_T_PHDR, 1, EV_CURRENT)) {
        return "nothing in it can be loaded: it has no program headers for that";
    }
    if (types.count(PT_DYNAMIC) == 0) {
        return "it has no dynamic section: link it as a shared library";
    }
    return isConsistent(known) ? "" : "its program headers contradict each other";
}

// The program's own header says what this machine is.
bool isForThisMachine(const GElf_Ehdr& library)
{
    Elf64_Ehdr own = {};
    std::ifstream("/proc/self/exe", std::ios::binary).read(reinterpret_cast<char*>(&own), sizeof own);
    return own.e_machine == library.e_machine && own.e_ident[EI_CLASS] == library.e_ident[EI_CLASS] &&
           own.e_ident[EI_DATA] == library.e_ident[EI_DATA];
}
} // namespace

bool isElf(const std::filesystem::path& file)
{
    char magic[SELFMAG] = {};
    std::ifstream(file, std::ios::binary).read(magic, sizeof magic);
    return std::memcmp(magic, ELFMAG, sizeof magic) == 0;
}

ControlLibrary readControlLibrary(const std::filesystem::path& file)
{
    elf_version(EV_CURRENT);
    const common::UniqueFd descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const std::unique_ptr<Elf, ElfRelease> elf(elf_begin(descriptor.get(), ELF_C_READ, nullptr));
    GElf_Ehdr header;
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF || gelf_getehdr(elf.get(), &header) == nullptr) {
        const int error = elf_errno(); // libelf says nothing of a file that ends within its header
        throw Damaged(kLibraryKind, common::shown(file) + " is a damaged library: " +
                                        (error == 0 ? kTooShort : elf_errmsg(error)));
    }
    const Exports exports = exportsOf(elf.get());
    ControlLibrary library{header.e_type == ET_DYN,
                           isForThisMachine(header),
                           file.stem(),
                           buildIdOf(elf.get()),
                           damageOf(elf.get(), header, std::filesystem::file_size(file)),
                           exports.isListed,
                           {},
                           exports.own};
    for (const common::EntryPoint& entry : common::kEntryPoints) {
        library.entryPoints.push_back({entry.name, entry.isRequired, exports.names.count(entry.name) != 0,
                                       mangledNameOf(entry.name, exports.names)});
        library.otherNames.erase(entry.name);
    }
    return library;
}

std::string whyNotLoadable(const std::filesystem::path& file)
{
    if (!isElf(file)) {
        return "it is no ELF file";
    }
    try {
        const ControlLibrary library = readControlLibrary(file);
        if (!library.isSharedObject) {
            return "it is an ELF file of another kind";
        }
        if (!library.isForThisMachine) {
            return "it is for another processor";
        }
        return library.damage;
    } catch (const common::Failure& error) {
        return error.what();
    }
}
} // namespace fwmod
