// Files of a set's directory that our programs read, from outside or inside. Who runs a set, and the set's
// own programs, can put anything in their place: nothing but a regular file is opened, and no more of it is
// read than it may have. What is wrong with one is told by common::Failure, with what to do.
#ifndef VSET_CLIENT_SET_FILE_H
#define VSET_CLIENT_SET_FILE_H

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "common/files/regular-file.h"

namespace vset
{

// Open for reading; null when there is nothing under that name.
std::unique_ptr<common::RegularFile> openSetFile(const std::filesystem::path& path);

// What stands in it; nothing when there is nothing under that name. `most`: bytes.
std::optional<std::string> readSetFile(const std::filesystem::path& path, std::size_t most = 4 << 20);

// The last line of what stands there from byte `begin` on, and no end of a line; empty when there is none, or
// no file. In a file that is shorter than that everything counts.
std::string lastLineOf(const std::filesystem::path& path, off_t begin = 0);

// Throws when something is there that no program of ours would take for a file: a pipe, a directory, a
// device, a link that leads nowhere or in a circle.
void requireFileOrNothing(const std::filesystem::path& path);

// The same of a file that only the launcher makes: nor any link.
void requireOwnFileOrNothing(const std::filesystem::path& path);

} // namespace vset

#endif
