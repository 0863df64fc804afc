#include "vset/television/workshop.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "common/errors.h"

namespace vset
{

namespace fs = std::filesystem;

namespace
{

[[noreturn]] void failWith(int error, const char* what, const fs::path& path)
{
    throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

void give(const fs::path& path, uid_t user, gid_t group)
{
    if (lchown(path.c_str(), user, group) != 0) {
        failWith(errno, "chown", path);
    }
}

} // namespace

void giveTree(const fs::path& tree, uid_t user, gid_t group)
{
    give(tree, user, group);
    if (!fs::is_directory(fs::symlink_status(tree))) {
        return;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree)) {
        give(entry.path(), user, group);
    }
}

HeldDirectory::HeldDirectory(const fs::path& set, const fs::path& path, Missing missing) : path_(path)
{
    constexpr int kOpening = O_PATH | O_DIRECTORY | O_CLOEXEC;
    directory_ = common::UniqueFd(open(set.c_str(), kOpening));
    fs::path reached = set;
    for (const fs::path& name : path.lexically_relative(set)) {
        reached /= name;
        if (missing == Missing::kIsMade) {
            mkdirat(directory_.get(), name.c_str(), 0755);
        }
        directory_ = common::UniqueFd(openat(directory_.get(), name.c_str(), kOpening | O_NOFOLLOW));
        if (!directory_) {
            break;
        }
    }
    if (!directory_ && (errno != ENOENT || missing == Missing::kIsMade)) {
        const int error = errno;
        if (error == ENOTDIR || error == ELOOP) {
            throw common::Failure(reached.string() + ": is in the way: a set has a directory there");
        }
        failWith(error, "open", reached);
    }
}

fs::path HeldDirectory::by(const fs::path& name) const
{
    return fs::path("/proc/self/fd") / std::to_string(directory_.get()) / name;
}

namespace
{

const std::string kBegin = "put.";

bool isGone(const std::string& process)
{
    const bool isNumber = !process.empty() && process.size() < 10 &&
                          process.find_first_not_of("0123456789") == std::string::npos;
    return isNumber && kill(std::stoi(process), 0) != 0 && errno == ESRCH;
}

// Of a program that was killed at its work.
void removeLeftovers(const fs::path& directory)
{
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().stem().string(); // without the random part
        if (name.rfind(kBegin, 0) == 0 && isGone(name.substr(kBegin.size()))) {
            std::error_code ignored;
            fs::remove_all(entry->path(), ignored);
        }
    }
}

} // namespace

Workshop::Workshop(const fs::path& set)
{
    const HeldDirectory place(set, set / ".vset", HeldDirectory::Missing::kIsMade);
    removeLeftovers(place.path());
    std::string name = place.path() / (kBegin + std::to_string(getpid()) + ".XXXXXX");
    if (mkdtemp(name.data()) == nullptr) {
        failWith(errno, "mkdir", place.path());
    }
    directory_ = name;
}

Workshop::~Workshop()
{
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

} // namespace vset
