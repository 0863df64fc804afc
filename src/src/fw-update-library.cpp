#include "fw-update-library.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/stat.h>
#include <vector>

#include "fw-update-file.h"

namespace
{

using Header = ElfW(Ehdr);
using Part = ElfW(Phdr);

constexpr unsigned char kOwnClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;

// What the loader reads in the memory that it has mapped, at the address that the header names.
constexpr uint32_t kRead[] = {PT_DYNAMIC, PT_NOTE, PT_PHDR, PT_TLS, PT_GNU_PROPERTY};

// Without overflow: whether `count` bytes from there end within `size`.
bool isWithin(uint64_t start, uint64_t count, uint64_t size)
{
    return start <= size && count <= size - start;
}

// False for what the loader refuses by itself.
bool readParts(FILE* file, std::vector<LibraryPart>& parts)
{
    Header header;
    const bool isOurs = fread(&header, sizeof header, 1, file) == 1 &&
                        memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
                        header.e_ident[EI_CLASS] == kOwnClass && header.e_phentsize == sizeof(Part);
    if (!isOurs || fseeko(file, static_cast<off_t>(header.e_phoff), SEEK_SET) != 0) {
        return false;
    }
    Part part;
    while (parts.size() < header.e_phnum && fread(&part, sizeof part, 1, file) == 1) {
        parts.push_back({part.p_type, part.p_offset, part.p_filesz, part.p_vaddr, part.p_memsz});
    }
    return parts.size() == header.e_phnum;
}

bool isLoaded(const LibraryPart& part)
{
    return part.type == PT_LOAD;
}

// The loader makes room from the first part to the last one's end.
bool areInOrder(const std::vector<LibraryPart>& parts)
{
    uint64_t end = 0;
    for (const LibraryPart& part : parts) {
        if (!isLoaded(part)) {
            continue;
        }
        if (part.address < end || part.address + part.memorySize < part.address) {
            return false;
        }
        end = part.address + part.memorySize;
    }
    return true;
}

bool isReadByLoader(const LibraryPart& part)
{
    return part.fileSize > 0 && std::find(std::begin(kRead), std::end(kRead), part.type) != std::end(kRead);
}

bool liesInLoaded(const LibraryPart& part, const std::vector<LibraryPart>& parts)
{
    return std::any_of(parts.begin(), parts.end(), [&part](const LibraryPart& loaded) {
        return isLoaded(loaded) && part.address >= loaded.address &&
               isWithin(part.address - loaded.address, part.fileSize, loaded.memorySize);
    });
}

// The loader would wait for a writer, and the service with it.
bool isPipe(const std::string& path)
{
    struct stat file = {};
    return stat(path.c_str(), &file) == 0 && S_ISFIFO(file.st_mode);
}

} // namespace

void* openLibrary(const std::string& path, int flags, std::string& why)
{
    why = isPipe(path) ? "not a regular file" : whyNotMapped(path);
    if (!why.empty()) {
        return nullptr;
    }
    void* const library = dlopen(path.c_str(), flags);
    const char* const error = library == nullptr ? dlerror() : nullptr;
    why = error != nullptr ? error : "";
    return library;
}

bool isWhole(const std::vector<LibraryPart>& parts, uint64_t size)
{
    return std::all_of(parts.begin(), parts.end(), [size](const LibraryPart& part) {
        return !isLoaded(part) || isWithin(part.offset, part.fileSize, size);
    });
}

bool isConsistent(const std::vector<LibraryPart>& parts)
{
    return areInOrder(parts) && std::all_of(parts.begin(), parts.end(), [&parts](const LibraryPart& part) {
               return !isReadByLoader(part) || liesInLoaded(part, parts);
           });
}

std::string whyNotMapped(const std::string& path)
{
    const File file = openToRead(path);
    struct stat status = {};
    std::vector<LibraryPart> parts;
    if (!file || fstat(fileno(file.get()), &status) != 0 || !readParts(file.get(), parts)) {
        return "";
    }
    if (!isWhole(parts, static_cast<uint64_t>(status.st_size))) {
        return path + ": the file ends too soon";
    }
    return isConsistent(parts) ? "" : path + ": program headers contradict each other";
}
