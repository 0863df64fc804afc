#include "tools/fwctl/turn/turn-record.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/shared-page.h"
#include "common/files/unique-fd.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/set-state.h"

namespace fwctl
{

namespace
{
constexpr const char* kPath = "/dev/shm/fwctl.SEM_UPDATE_CONTROL"; // beside the semaphore

// Anybody may put something of that name into this directory: it is looked at before it is believed.
constexpr int kOpening = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

bool isOurs(int file)
{
    struct stat status = {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) == 0 &&
           status.st_size == static_cast<off_t>(sizeof(TurnRecord::Shared));
}

// Complete before it has its name, so that nobody sees half of it.
void make(uid_t owner)
{
    const std::string name = std::string(kPath) + "." + std::to_string(getpid());
    const common::UniqueFd file(open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | kOpening, 0600));
    if (!file) {
        return;
    }
    const bool isWhole = common::reserve(file.get(), sizeof(TurnRecord::Shared));
    const int reason = errno;
    const bool isOwned = owner == geteuid() || fchown(file.get(), owner, static_cast<gid_t>(-1)) == 0 ||
                         errno == EINVAL; // a user namespace of one user has no other owner to give it to
    if (isWhole && isOwned && link(name.c_str(), kPath) != 0 && errno != EEXIST) {
        // what is the matter shows when it is opened
    }
    unlink(name.c_str());
    if (!isWhole) {
        throw common::Failure(std::string("cannot write ") + kPath + ": " + std::strerror(reason) +
                              ": make room in /dev/shm");
    }
}

void* mapRecord(int file, int protection)
{
    void* const memory = mmap(nullptr, sizeof(TurnRecord::Shared), protection, MAP_SHARED, file, 0);
    return memory != MAP_FAILED ? memory : nullptr;
}
} // namespace

TurnRecordView viewTurnRecord()
{
    TurnRecordView view;
    const int file = open(kPath, O_RDONLY | kOpening);
    void* const memory = file >= 0 && isOurs(file) ? mapRecord(file, PROT_READ) : nullptr;
    if (memory != nullptr) {
        const auto* const shared = static_cast<const TurnRecord::Shared*>(memory);
        view.isLocked = flock(file, LOCK_SH | LOCK_NB) != 0; // given back when the file is closed
        view.phase = shared->phase;
        view.holder = isRunning(shared->parent) ? shared->parent : shared->child;
        munmap(memory, sizeof(TurnRecord::Shared));
    }
    if (file >= 0) {
        close(file);
    }
    return view;
}

std::string problemOfTurnRecord()
{
    const common::UniqueFd file(open(kPath, O_RDONLY | kOpening));
    const bool isUnknown = !file && (errno == ENOENT || errno == EACCES);
    return isUnknown || (file && isOurs(file.get())) ? "" : std::string(kPath) + " is no record of fwctl's";
}

TurnRecord::TurnRecord(uid_t owner) : file_(open(kPath, O_RDWR | kOpening))
{
    if (file_ < 0 && errno == ENOENT) {
        make(owner);
        file_ = open(kPath, O_RDWR | kOpening);
    }
    const int reason = errno;
    if (file_ >= 0 && isOurs(file_)) {
        shared_ = static_cast<Shared*>(mapRecord(file_, PROT_READ | PROT_WRITE));
    }
    if (shared_ != nullptr) {
        return;
    }
    if (file_ >= 0) {
        close(file_);
    }
    const std::string problem = problemOfTurnRecord();
    if (problem.empty()) {
        throw common::Failure(std::string("cannot open ") + kPath + ": " + std::strerror(reason) +
                              ": this needs root or the daemon's user");
    }
    throw common::Failure(problem + ": remove it, and find out who made it");
}

TurnRecord::~TurnRecord()
{
    munmap(shared_, sizeof(Shared));
    close(file_);
}

bool TurnRecord::lock()
{
    return flock(file_, LOCK_EX | LOCK_NB) == 0;
}

void TurnRecord::unlock()
{
    flock(file_, LOCK_UN);
}

} // namespace fwctl
