#include "programs.h"

#include "command.h"

#include <unistd.h>

namespace fs = std::filesystem;

namespace
{
constexpr const char* kRemedy = ": install the kit anew (scripts/install-sdk), or in a build tree build the "
                                "target sdk-kit";
} // namespace

fs::path vsetProgram()
{
    const fs::path own = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& candidate : {own / "vset", own / "../../vset/bin/vset"}) {
        if (access(candidate.c_str(), X_OK) == 0)
            return fs::canonical(candidate);
    }
    throw Failure("the virtual set, vset, is not in " + own.string() + kRemedy);
}

fs::path programBesideVset(const std::string& name)
{
    const fs::path directory = vsetProgram().parent_path();
    if (access((directory / name).c_str(), X_OK) != 0)
        throw Failure(name + " is not in " + directory.string() + kRemedy);
    return directory / name;
}
