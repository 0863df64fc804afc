#include "vset/client/set-file.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void refuse(const fs::path& path, const std::string& problem)
{
    throw common::Failure(path.string() + " " + problem +
                          ": end the set if it is on, then remove this, and `vset run` makes a new one");
}

// Whether there was not even a link when it could not be opened, with that errno. A set that is switched on
// makes its files meanwhile: one that has come since then is nothing to complain of.
bool wasNothing(const fs::path& path, int error)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT;
    }
    return error == ENOENT && !S_ISLNK(status.st_mode);
}

[[noreturn]] void refuse(const fs::path& path, const std::string& problem, int error)
{
    if (error == EACCES) {
        throw common::Failure(path.string() + " " + problem + " (it belongs to another user? then use sudo)");
    }
    refuse(path, error == ENOENT ? "is a link that leads nowhere" : problem);
}

} // namespace

std::unique_ptr<common::RegularFile> openSetFile(const fs::path& path)
{
    errno = 0;
    auto file = std::make_unique<common::RegularFile>(path);
    const int error = errno;
    if (file->descriptor() >= 0) {
        return file;
    }
    if (wasNothing(path, error)) {
        return nullptr;
    }
    refuse(path, file->problem(), error);
}

std::optional<std::string> readSetFile(const fs::path& path, std::size_t most)
{
    errno = 0;
    std::string problem;
    std::optional<std::string> text = common::readRegularFile(path, most, problem);
    const int error = errno;
    if (!text && !wasNothing(path, error)) {
        refuse(path, problem, error);
    }
    return text;
}

std::string lastLineOf(const fs::path& path, off_t begin)
{
    constexpr off_t kLongest = 4096;
    const common::RegularFile file(path);
    struct stat status = {};
    if (file.descriptor() < 0 || fstat(file.descriptor(), &status) != 0) {
        return "";
    }
    char end[kLongest];
    const off_t from = std::max<off_t>(status.st_size - kLongest, begin <= status.st_size ? begin : 0);
    const ssize_t size = pread(file.descriptor(), end, kLongest, from);
    std::string text(end, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    text.erase(text.find_last_not_of('\n') + 1);
    return text.substr(text.find_last_of('\n') + 1);
}

void requireFileOrNothing(const fs::path& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 && errno != ENOENT) {
        const int error = errno;
        refuse(path, "cannot be opened: " + std::generic_category().message(error), error);
    }
    const std::string problem = common::problemOfSpecialFile(path);
    if (!problem.empty()) {
        refuse(path, problem);
    }
    if (stat(path.c_str(), &status) != 0 && !wasNothing(path, errno)) {
        refuse(path, "is a link that leads nowhere");
    }
}

void requireOwnFileOrNothing(const fs::path& path)
{
    requireFileOrNothing(path);
    if (fs::is_symlink(fs::symlink_status(path))) {
        refuse(path, "is not a file but a link");
    }
}

} // namespace vset
