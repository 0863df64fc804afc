// Files where a library may have put anything, at any moment: links, pipes, sockets, devices. Only plain ones
// are opened here, never waited for, and what goes away meanwhile is left out.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_PLAIN_FILES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_PLAIN_FILES_H

#include <filesystem>
#include <string>
#include <vector>

#include "common/files/unique-fd.h"

namespace fwmod::examiner
{

// Of any kind, each directory before what is in it; links are not followed.
std::vector<std::filesystem::path> everythingBelow(const std::filesystem::path& directory);

// The plain files among them.
std::vector<std::filesystem::path> filesIn(const std::filesystem::path& directory);

// With the flags of open(2); none for what is no plain file, or no longer there.
common::UniqueFd openPlain(const std::filesystem::path& file, int flags);

// Empty when there is no such plain file.
std::string contentOf(const std::filesystem::path& file);

// In its place: it may be open. Makes it when there is nothing by that name.
void overwrite(const std::filesystem::path& file, const std::string& content);

} // namespace fwmod::examiner

#endif
