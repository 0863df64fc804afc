#include "common/files/file-copy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/unique-fd.h"

namespace fs = std::filesystem;

namespace common
{

namespace
{

UniqueFd opened(const fs::path& path, int flags, mode_t mode = 0)
{
    return UniqueFd(open(path.c_str(), flags | O_CLOEXEC, mode));
}

// Bytes `begin` to `end` to the same place; false with errno.
bool copyRange(int from, int to, off_t begin, off_t end)
{
    constexpr off_t kMost = 1 << 30;
    if (lseek(to, begin, SEEK_SET) < 0) {
        return false;
    }
    while (begin < end) {
        const ssize_t copied = sendfile(to, from, &begin, static_cast<size_t>(std::min(end - begin, kMost)));
        if (copied == 0) {
            return true; // the file has become shorter meanwhile
        }
        if (copied < 0 && errno != EINTR) {
            return false;
        }
    }
    return true;
}

// What holds data, extent by extent. A file system that knows no holes tells of one extent.
bool copyData(int from, int to, off_t size)
{
    off_t at = 0;
    while (at < size) {
        const off_t data = lseek(from, at, SEEK_DATA);
        if (data < 0 && errno == ENXIO) {
            break; // a hole up to the end
        }
        const off_t begin = data < 0 ? at : data;
        const off_t hole = data < 0 ? -1 : lseek(from, begin, SEEK_HOLE);
        const off_t end = hole < 0 ? size : hole;
        if (!copyRange(from, to, begin, end)) {
            return false;
        }
        at = end;
    }
    return true;
}

bool copyContent(const fs::path& from, const fs::path& to)
{
    const UniqueFd source = opened(from, O_RDONLY | O_NONBLOCK);
    struct stat file = {};
    if (!source || fstat(source.get(), &file) != 0) {
        return false;
    }
    if (!S_ISREG(file.st_mode)) {
        errno = EINVAL;
        return false;
    }
    const UniqueFd target = opened(to, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    return target && ftruncate(target.get(), file.st_size) == 0 &&
           copyData(source.get(), target.get(), file.st_size) &&
           fchmod(target.get(), file.st_mode & 07777) == 0;
}

void copyEntry(const fs::path& from, const fs::path& to)
{
    const fs::file_status status = fs::symlink_status(from);
    if (fs::is_directory(status)) {
        fs::create_directories(to);
        fs::permissions(to, status.permissions());
    } else if (fs::is_symlink(status)) {
        fs::remove(to);
        fs::copy_symlink(from, to);
    } else if (fs::is_regular_file(status)) {
        copyFile(from, to);
    } else {
        throw fs::filesystem_error("cannot copy", from, to, std::make_error_code(std::errc::not_supported));
    }
}

} // namespace

void copyFile(const fs::path& from, const fs::path& to)
{
    if (!copyContent(from, to)) {
        throw fs::filesystem_error("cannot copy", from, to, std::error_code(errno, std::generic_category()));
    }
}

void copyTree(const fs::path& from, const fs::path& to)
{
    copyEntry(from, to);
    if (!fs::is_directory(fs::symlink_status(from))) {
        return;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(from)) {
        copyEntry(entry.path(), to / entry.path().lexically_relative(from));
    }
}

} // namespace common
