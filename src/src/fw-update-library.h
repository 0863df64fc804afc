// Shared libraries that are loaded at run time, and may be anything: a file that was cut or damaged leads the
// dynamic loader to where there is nothing, which ends the process by a signal; a pipe is waited for. Any
// thread.
#ifndef FW_UPDATE_LIBRARY_H
#define FW_UPDATE_LIBRARY_H

#include <cstdint>
#include <string>
#include <vector>

// As dlopen(). Null when the file must not be given to the loader, or when that refuses it; `why` then has
// the reason.
void* openLibrary(const std::string& path, int flags, std::string& why);

// What a program header says, of any word size and byte order.
struct LibraryPart {
    uint32_t type; // PT_LOAD, ...
    uint64_t offset;
    uint64_t fileSize;
    uint64_t address;
    uint64_t memorySize;
};

// Whether all that is to be loaded lies within a file of that size.
bool isWhole(const std::vector<LibraryPart>& parts, uint64_t size);

// Whether the loader finds what it looks for, without a look at where it goes, in what it has loaded.
bool isConsistent(const std::vector<LibraryPart>& parts);

// Why the file, whose path the text begins with, leads the loader astray. Empty when it does not, and for
// what the loader refuses by itself: it tells why.
std::string whyNotMapped(const std::string& path);

#endif
