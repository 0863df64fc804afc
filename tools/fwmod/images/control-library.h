// A control library, looked at without loading it: nothing of it runs.
#ifndef TOOLS_FWMOD_IMAGES_CONTROL_LIBRARY_H
#define TOOLS_FWMOD_IMAGES_CONTROL_LIBRARY_H

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace fwmod
{

struct EntryPointState {
    const char* name;
    bool required;
    bool exported;
    std::string mangled; // the C++ name of a function that is called so, when that is exported; else empty
};

struct ControlLibrary {
    bool isSharedObject;     // can be loaded at all
    bool isForThisMachine;   // same processor and word size as this program; a set may differ
    std::string libraryName; // as setContext gets it: the file's name without ".so"
    std::string buildId;     // bytes; empty when the linker was told to leave it out
    std::string damage;      // why the dynamic loader would not take what the file holds; empty when it would
    bool isListed; // the list of its functions can be read; the loader does without the sections that lead to
                   // it
    std::vector<EntryPointState> entryPoints;
    std::set<std::string>
        otherNames; // that are exported, too; without what C++ exports in every library alike
};

bool isElf(const std::filesystem::path& file);

// Throws Damaged.
ControlLibrary readControlLibrary(const std::filesystem::path& file);

// What the dynamic loader would stumble over, as far as can be told without it; "" when nothing.
std::string whyNotLoadable(const std::filesystem::path& file);

} // namespace fwmod

#endif
