// A file that a program writes must be none of those that it reads.
#ifndef COMMON_FILES_OVERWRITING_H
#define COMMON_FILES_OVERWRITING_H

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "common/errors.h"
#include "common/terminal/visible-text.h"

namespace common
{

// Throws WrongUse when `output`, which `option` has named, is one of the files, or lies in one of the
// directories. An input that is "" or not there is none.
inline void refuseOverwriting(const std::string& option, const std::filesystem::path& output,
                              const std::vector<std::filesystem::path>& files,
                              const std::vector<std::filesystem::path>& directories = {})
{
    namespace fs = std::filesystem;
    std::error_code none; // a file that is not there yet is none of them
    const fs::path file = fs::weakly_canonical(fs::absolute(output, none), none);
    for (const fs::path& input : files) {
        if (fs::equivalent(input, file, none)) {
            throw WrongUse(option + " " + shown(output) + " would overwrite an input; choose another name");
        }
    }
    for (const fs::path& input : directories) {
        for (fs::path above = file.parent_path(); above.has_relative_path(); above = above.parent_path()) {
            if (fs::equivalent(input, above, none)) {
                throw WrongUse(option + " " + shown(output) + " lies in " + shown(input) +
                               ", whose files are read; choose another place");
            }
        }
    }
}

} // namespace common

#endif
