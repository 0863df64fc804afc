// The commands of the mount service: the arguments of the mount and mknod utilities as one text.
//
// Words are separated by blanks and never quoted, so a path with a blank in it cannot be named. Everything
// that these utilities would take but that has no place on the set (other types of file system, of node,
// other options) is refused: the caller is less trusted than this service.
#ifndef VSET_PSMOUNTD_COMMAND_LINE_H
#define VSET_PSMOUNTD_COMMAND_LINE_H

#include <optional>
#include <string>

namespace psmount
{

// The highest loop device number of a set.
constexpr unsigned int kHighestLoop = 249;

struct MountCommand {
    std::string image;     // absolute path
    std::string directory; // absolute path
    bool noExec = false;   // the other options (read-only, no devices, no set-user-id) always hold
};

struct MknodCommand {
    unsigned int loop = 0; // N of /dev/loopN, 0 to kHighestLoop
    unsigned int mode = 0; // permission bits
};

// "-o ro,loop,nodev,nosuid IMAGE DIRECTORY". Nothing when the command is malformed or not allowed: without
// "ro", with an unknown option, with a relative path.
std::optional<MountCommand> parseMount(const std::string& text);

// "-m 0660 -Z * /dev/loopN  b 7 N": node and minor number have to agree.
std::optional<MknodCommand> parseMknod(const std::string& text);

} // namespace psmount

#endif
