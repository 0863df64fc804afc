// Files that a running set may read at any moment: always the old content or the new one, never a part of it.
//
// A control library reads its script, the daemon an information file, the mount service a package, whenever
// their time has come, and a test that writes in place is sometimes a moment too late.
#ifndef TESTS_SUPPORT_REPLACED_FILE_H
#define TESTS_SUPPORT_REPLACED_FILE_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support
{

// Lets `write` make a file beside `path` and puts it in its place. The name that it has until then has no
// extension, so that nobody takes it for a library or a package.
template <typename Write>
void replaceWith(const std::filesystem::path& path, Write write)
{
    std::filesystem::create_directories(path.parent_path());
    const std::filesystem::path unfinished =
        path.parent_path() / ("unfinished-" + path.stem().string() + "-" + std::to_string(getpid()));
    try {
        std::filesystem::remove(unfinished);
        write(unfinished);
        std::filesystem::rename(unfinished, path);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(unfinished, ignored);
        throw;
    }
}

// Keeps the owner and the mode of a file that is there already.
inline void replaceFile(const std::filesystem::path& path, const std::string& content)
{
    replaceWith(path, [&](const std::filesystem::path& unfinished) {
        std::ofstream out(unfinished, std::ios::binary);
        out << content;
        out.close();
        if (!out) {
            throw std::runtime_error("cannot write " + path.string());
        }
        struct stat old = {};
        if (stat(path.c_str(), &old) != 0) {
            return;
        }
        if (chmod(unfinished.c_str(), old.st_mode & 07777) != 0 ||
            (geteuid() == 0 && chown(unfinished.c_str(), old.st_uid, old.st_gid) != 0)) {
            throw std::runtime_error("cannot keep the owner of " + path.string());
        }
    });
}

inline void replaceWithCopy(const std::filesystem::path& from, const std::filesystem::path& path)
{
    replaceWith(
        path, [&](const std::filesystem::path& unfinished) { std::filesystem::copy_file(from, unfinished); });
}

} // namespace testing_support

#endif
