// A directory of one's own, removed with all it holds.
//
// Not for what has to go away when the program is killed (tools/fwmod/files.h), nor for a set, whose end sees
// to its own.
#ifndef COMMON_FILES_TEMPORARY_DIRECTORY_H
#define COMMON_FILES_TEMPORARY_DIRECTORY_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace common
{

class TemporaryDirectory
{
public:
    // PREFIXXXXXXX in `parent`; only its owner may look into it. Throws std::system_error.
    explicit TemporaryDirectory(const std::string& prefix,
                                const std::filesystem::path& parent = std::filesystem::temp_directory_path())
    {
        std::string name = parent / (prefix + "XXXXXX");
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot make the directory " + name);
        }
        path_ = name;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace common

#endif
