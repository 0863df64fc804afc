#include "tools/fwmod/check/examiner/machine/plain-files.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
void addAllBelow(const fs::path& directory, std::vector<fs::path>& all)
{
    std::error_code none;
    for (fs::directory_iterator entry(directory, none), end; !none && entry != end; entry.increment(none)) {
        all.push_back(entry->path());
        std::error_code gone;
        if (fs::is_directory(entry->symlink_status(gone))) {
            addAllBelow(entry->path(), all);
        }
    }
}

bool isPlain(const fs::path& path)
{
    std::error_code gone;
    return fs::is_regular_file(fs::symlink_status(path, gone));
}
} // namespace

std::vector<fs::path> everythingBelow(const fs::path& directory)
{
    std::vector<fs::path> all;
    addAllBelow(directory, all);
    return all;
}

std::vector<fs::path> filesIn(const fs::path& directory)
{
    std::vector<fs::path> all = everythingBelow(directory);
    all.erase(std::remove_if(all.begin(), all.end(), [](const fs::path& path) { return !isPlain(path); }),
              all.end());
    return all;
}

common::UniqueFd openPlain(const fs::path& file, int flags)
{
    struct stat status = {};
    if (lstat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return {}; // to open some devices is to do something to them
    }
    common::UniqueFd opened(open(file.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    const bool isStillPlain = opened && fstat(opened.get(), &status) == 0 && S_ISREG(status.st_mode);
    return isStillPlain ? std::move(opened) : common::UniqueFd();
}

std::string contentOf(const fs::path& file)
{
    const common::UniqueFd in = openPlain(file, O_RDONLY);
    struct stat status = {};
    if (!in || fstat(in.get(), &status) != 0) {
        return "";
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t have = 0;
    for (ssize_t got = 1; got > 0 && have < content.size(); have += static_cast<std::size_t>(got)) {
        got = std::max<ssize_t>(read(in.get(), content.data() + have, content.size() - have), 0);
    }
    content.resize(have);
    return content;
}

void overwrite(const fs::path& file, const std::string& content)
{
    const common::UniqueFd out = openPlain(file, O_WRONLY | O_CREAT);
    std::size_t done = 0;
    for (ssize_t put = 1; out && put > 0 && done < content.size(); done += static_cast<std::size_t>(put)) {
        put = std::max<ssize_t>(write(out.get(), content.data() + done, content.size() - done), 0);
    }
    (void)!ftruncate(out.get(), static_cast<off_t>(content.size()));
}
} // namespace fwmod::examiner
