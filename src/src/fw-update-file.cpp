#include "fw-update-file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr int kAlways = O_NONBLOCK | O_NOCTTY | O_CLOEXEC; // of these only the last outlives the opening

// Takes the descriptor over, whatever comes of it.
File streamOver(int descriptor, const char* mode)
{
    struct stat status;
    const bool isSafe = descriptor >= 0 && fstat(descriptor, &status) == 0 &&
                        (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
    File stream{isSafe ? fdopen(descriptor, mode) : nullptr};
    if (!stream && descriptor >= 0) {
        close(descriptor);
    }
    return stream;
}

} // namespace

File openToRead(const std::string& path)
{
    return streamOver(open(path.c_str(), O_RDONLY | kAlways), "r");
}

bool readWhole(const std::string& path, size_t limit, std::string& text)
{
    const File file = openToRead(path);
    if (!file) {
        return false;
    }
    char chunk[4096];
    while (const size_t count = fread(chunk, 1, sizeof chunk, file.get())) {
        if (count > limit) {
            return false;
        }
        text.append(chunk, count);
        limit -= count;
    }
    return true;
}

File openToReplace(const std::string& path)
{
    return streamOver(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | kAlways, 0666), "w");
}
