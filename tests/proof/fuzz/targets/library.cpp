// The reader of control libraries, and what the daemon looks at before its loader does.
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "common/terminal/visible-text.h"
#include "src/src/fw-update-library.h"
#include "tests/proof/fuzz/target.h"
#include "tools/fwmod/images/control-library.h"
#include "tools/fwmod/images/damaged.h"

namespace
{

// Whether there is a byte of the file behind each page of a part, as the loader maps it: a copy tells without
// a signal.
bool isBacked(int file, const ElfW(Phdr) & part)
{
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t start = part.p_offset / page * page;
    const size_t size = part.p_offset - start + part.p_filesz;
    void* const mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, static_cast<off_t>(start));
    if (mapped == MAP_FAILED) {
        return false;
    }
    const common::UniqueFd sink(memfd_create("sink", MFD_CLOEXEC));
    const bool isCopied = write(sink.get(), mapped, size) == static_cast<ssize_t>(size);
    munmap(mapped, size);
    return isCopied;
}

void requireBacked(std::string_view input, const std::string& path)
{
    ElfW(Ehdr) header;
    if (input.size() < sizeof header) {
        return;
    }
    std::memcpy(&header, input.data(), sizeof header);
    const common::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    for (uint64_t at = 0; at < header.e_phnum; ++at) {
        const uint64_t offset = header.e_phoff + at * sizeof(ElfW(Phdr));
        ElfW(Phdr) part;
        if (offset > input.size() || input.size() - offset < sizeof part) {
            return;
        }
        std::memcpy(&part, input.data() + offset, sizeof part);
        if (part.p_type == PT_LOAD && part.p_filesz > 0) {
            fuzz::require(isBacked(file.get(), part), "what is to be loaded is in the file");
        }
    }
}

void run(std::string_view input)
{
    const std::string path = fuzz::fileWith("tuner.so", input);
    const std::string damage = fwmod::whyNotLoadable(path);
    fuzz::require(common::visible(damage) == damage, "a reason is one line of text");
    const std::string refusal = whyNotMapped(path);
    if (damage.empty()) {
        fuzz::require(refusal.empty(), "what the maker's tool takes, the daemon hands to its loader");
        requireBacked(input, path);
    }
    try {
        const fwmod::ControlLibrary library = fwmod::readControlLibrary(path);
        fuzz::require(library.buildId.size() <= input.size() && library.libraryName == "tuner",
                      "what is told of a library is in it");
    } catch (const fwmod::Damaged& error) {
        fuzz::require(!damage.empty(), "a damaged library is not loadable");
    }
}

const fuzz::Target target("library", run);

} // namespace
