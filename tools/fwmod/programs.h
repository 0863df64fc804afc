// The other programs of the kit, found relative to this one's own file, so that the kit can be moved.
#ifndef TOOLS_FWMOD_PROGRAMS_H
#define TOOLS_FWMOD_PROGRAMS_H

#include <filesystem>
#include <string>

namespace fwmod
{

// vset: beside fwmod in the kit, in its own room of a build tree. Throws Failure, which says what to do.
std::filesystem::path vsetProgram();

// A program that lies beside vset. Throws likewise.
std::filesystem::path programBesideVset(const std::string& name);

} // namespace fwmod

#endif
