#include "tools/fwmod/check/examiner/machine/hardware-openings.h"

#include <filesystem>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

HardwareOpenings::HardwareOpenings(bool isWatching)
{
    std::error_code none;
    if (!isWatching || !fs::is_directory(kHardware, none)) {
        return;
    }
    events_ = common::UniqueFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    inotify_add_watch(events_.get(), kHardware, IN_OPEN);
    for (const fs::path& path : everythingBelow(kHardware)) {
        if (fs::is_directory(fs::symlink_status(path, none))) {
            inotify_add_watch(events_.get(), path.c_str(), IN_OPEN);
        }
    }
}

std::string HardwareOpenings::first() const
{
    alignas(inotify_event) char buffer[4096];
    for (ssize_t length = 0; (length = read(events_.get(), buffer, sizeof buffer)) > 0;) {
        for (const char* at = buffer; at < buffer + length;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(at);
            if (event->len > 0 && (event->mask & IN_ISDIR) == 0) {
                return event->name;
            }
            at += sizeof *event + event->len;
        }
    }
    return "";
}

FileOpenings::FileOpenings(const fs::path& file)
    : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      isWatched_(inotify_add_watch(events_.get(), file.c_str(), IN_OPEN) >= 0)
{
}

bool FileOpenings::isAny() const
{
    alignas(inotify_event) char buffer[4096];
    return !isWatched_ || read(events_.get(), buffer, sizeof buffer) > 0;
}
} // namespace fwmod::examiner
