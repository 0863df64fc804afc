// How something gets into the directory of a set that may be on: held directories that no link leads out of,
// and a place of one's own to put it together.
//
// Failures are std::filesystem::filesystem_error, and common::Failure where something is in the way. One
// thread.
#ifndef VSET_TELEVISION_WORKSHOP_H
#define VSET_TELEVISION_WORKSHOP_H

#include <filesystem>
#include <string>
#include <sys/types.h>

#include "common/files/unique-fd.h"

namespace vset
{

// A file, or a directory with all it holds; links themselves, not what they lead to.
void giveTree(const std::filesystem::path& tree, uid_t user, gid_t group);

// A directory of the set, held open. The set's own programs may put a link in its place, or in the place of
// any on the way to it: none is followed, since it would lead to the PC's own files.
class HeldDirectory
{
public:
    enum class Missing { kIsMade, kIsNothing };

    HeldDirectory(const std::filesystem::path& set, const std::filesystem::path& path, Missing missing);

    bool isThere() const { return static_cast<bool>(directory_); }
    int directory() const { return directory_.get(); }
    const std::filesystem::path& path() const { return path_; }
    // For functions that take paths; good as long as this object.
    std::filesystem::path by(const std::filesystem::path& name) const;

private:
    std::filesystem::path path_;
    common::UniqueFd directory_;
};

// Where something is put together: beside the set's own files, so that nobody in it sees it or has a hand in
// it before it is whole. What a killed program has left in one is removed by the next.
class Workshop
{
public:
    explicit Workshop(const std::filesystem::path& set);
    ~Workshop();
    Workshop(const Workshop&) = delete;
    Workshop& operator=(const Workshop&) = delete;

    std::filesystem::path at(const std::filesystem::path& name) const { return directory_ / name; }

private:
    std::filesystem::path directory_;
};

} // namespace vset

#endif
