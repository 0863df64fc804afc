// Copies of files that keep their holes: hardware is often a large file with little in it.
#ifndef COMMON_FILES_FILE_COPY_H
#define COMMON_FILES_FILE_COPY_H

#include <filesystem>

namespace common
{

// The content and mode of a regular file, holes included; `to` is made, or replaced. What was begun stays
// when it fails. Throws std::filesystem::filesystem_error with both names.
void copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

// A file, or a directory with all it holds: files as above, links as links. Directories that are there are
// filled. For anything else filesystem_error with std::errc::not_supported.
void copyTree(const std::filesystem::path& from, const std::filesystem::path& to);

} // namespace common

#endif
