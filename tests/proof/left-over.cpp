#include "tests/proof/left-over.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <system_error>

#include "common/daemon/places.h"
#include "common/files/whole-file.h"

namespace proof
{

namespace fs = std::filesystem;

std::string initOf(const tarnwick::Television& tv)
{
    std::ifstream lock(tv.set() / ".vset/lock");
    std::string init;
    lock >> init;
    return init;
}

fs::path insideSet(const tarnwick::Television& tv, const std::string& path)
{
    return "/proc/" + initOf(tv) + path;
}

bool LeftOver::isAsAfterAnEnd() const
{
    return semaphore == 1 && !isListThere && locks == 0;
}

std::string LeftOver::text() const
{
    return "the semaphore at " + std::to_string(semaphore) + ", " + std::to_string(locks) + " power locks" +
           (isListThere ? ", and the list" : "");
}

LeftOver leftOverIn(tarnwick::Television& tv)
{
    LeftOver left;
    std::ifstream mounts(insideSet(tv, "/mounts"));
    for (std::string line; std::getline(mounts, line);) {
        if (line.rfind("/dev/loop", 0) == 0) {
            left.mounts.push_back(line);
        }
    }
    const std::string semaphore = common::readWhole(insideSet(tv, "/root/dev/shm/sem.SEM_UPDATE_CONTROL"));
    if (semaphore.size() >= sizeof(std::uint32_t)) {
        std::uint32_t value = 0;
        std::memcpy(&value, semaphore.data(), sizeof value);
        left.semaphore = static_cast<int>(value);
    }
    std::error_code ignored;
    left.isListThere = fs::exists(fs::symlink_status(tv.outside(common::places::kUpdateList), ignored));
    left.locks = tv.powerLocks();
    return left;
}

} // namespace proof
