#include "vset/launcher/set-clock.h"

#include <unistd.h>

#include "vset/client/set-file.h"

namespace vset
{

void resetClock(const SetDirectory& set, double rate, bool isRootless)
{
    requireFileOrNothing(set.clockFile());
    ClockFile clock(set.clockFile(), ClockFile::Opening::kNewToo);
    const uid_t user = isRootless ? geteuid() : kPlatformUser;
    const gid_t group = isRootless ? getegid() : kSystemGroup;
    check(fchown(clock.descriptor(), user, group), "cannot give the clock to the set's platform");
    clock.reset(rate);
}

std::string changeClock(const fs::path& path, const ClockChange& change)
{
    const SetDirectory set = SetDirectory::open(path);
    if (!set.running().clock) {
        throw Error("set " + path.string() +
                    " runs without a clock: start its command with `vset run --clock-rate 1`");
    }
    requireFileOrNothing(set.clockFile());
    ClockFile clock(set.clockFile(), ClockFile::Opening::kExisting);
    if (change.rate || change.jump) {
        clock.change(change);
    }
    return clock.description();
}

} // namespace vset
