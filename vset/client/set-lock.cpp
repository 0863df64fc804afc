#include "vset/client/set-lock.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <system_error>

#include "common/errors.h"
#include "vset/client/set-file.h"

namespace vset
{

common::UniqueFd openToLock(const std::filesystem::path& set)
{
    common::UniqueFd directory(open(set.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        const int error = errno;
        throw common::Failure("cannot look into " + set.string() + ": " +
                              std::generic_category().message(error) +
                              (error == EACCES ? " (it belongs to another user? then use sudo)" : ""));
    }
    return directory;
}

bool isOn(const std::filesystem::path& set)
{
    openSetFile(set / kLockFile); // what stands in its place is told of
    const common::UniqueFd directory = openToLock(set);
    return flock(directory.get(), LOCK_SH | LOCK_NB) != 0; // given back with the descriptor
}

} // namespace vset
