#include "tools/fwmod/programs.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "common/process/this-program.h"
#include "tools/fwmod/commands/command.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
constexpr const char* kRemedy = ": install the kit anew (scripts/install-sdk), or in a build tree build the "
                                "target sdk-kit";

// False when it is not there. Throws when it is, but not for this user: building it would not help.
bool canRun(const fs::path& program)
{
    if (access(program.c_str(), X_OK) == 0) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throw common::Failure("cannot run " + program.string() + ": " + std::strerror(errno) +
                              "; whose tree is it, and may others read it?");
    }
    return false;
}
} // namespace

fs::path vsetProgram()
{
    const fs::path own = common::directoryOfThisProgram();
    for (const fs::path& candidate : {own / "vset", own / "../../vset/bin/vset"}) {
        if (canRun(candidate)) {
            return fs::canonical(candidate);
        }
    }
    throw common::Failure("the virtual set, vset, is not in " + own.string() + kRemedy);
}

fs::path programBesideVset(const std::string& name)
{
    const fs::path directory = vsetProgram().parent_path();
    if (!canRun(directory / name)) {
        throw common::Failure(name + " is not in " + directory.string() + kRemedy);
    }
    return directory / name;
}
} // namespace fwmod
