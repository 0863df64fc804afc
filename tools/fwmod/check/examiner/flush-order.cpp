#include "tools/fwmod/check/examiner/flush-order.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
bool needsFlush(const SeenWrite& write)
{
    return write.isContent() && !write.isLasting;
}

// Of everything, not of one file.
bool isFlushOfAll(const SeenWrite& write)
{
    return write.isFlush() && (write.path.empty() || write.call == "syncfs");
}

// A flush of the directory is none of the files in it, and the other way round.
bool isFlushOf(const SeenWrite& flush, const SeenWrite& write)
{
    const std::filesystem::path path = write.path;
    return isFlushOfAll(flush) ||
           (flush.isFlush() &&
            flush.path == (write.isNaming() ? path.parent_path() : path).lexically_normal());
}

bool isRemoval(const SeenWrite& write)
{
    return write.call.rfind("unlink", 0) == 0;
}

// That itself, or in that directory.
bool isAtOrBelow(const std::string& path, const std::string& place)
{
    return !place.empty() && path.rfind(place, 0) == 0 &&
           (path.size() == place.size() || path[place.size()] == '/');
}

// A file or a directory has another name, and so has what is in it.
void rename(std::string& path, const SeenWrite& naming)
{
    if (isAtOrBelow(path, naming.source) && naming.call.rfind("rename", 0) == 0) {
        path.replace(0, naming.source.size(), naming.path);
    }
}

void rename(std::vector<SeenWrite>& writes, const SeenWrite& naming)
{
    for (SeenWrite& write : writes) {
        rename(write.path, naming);
    }
}

template <typename Condition>
void remove(std::vector<SeenWrite>& writes, const Condition& condition)
{
    writes.erase(std::remove_if(writes.begin(), writes.end(), condition), writes.end());
}

// Goes on in the order of an update: what is open behind one write more.
void addTo(std::vector<SeenWrite>& open, const SeenWrite& write)
{
    if (write.isFlush()) {
        remove(open, [&](const SeenWrite& each) { return isFlushOf(write, each); });
    } else if (isRemoval(write)) {
        remove(open, [&](const SeenWrite& each) { return each.path == write.path; });
    } else if (write.isNaming()) {
        remove(open, [&](const SeenWrite& each) { return each.path == write.path; });
        rename(open, write);
    } else if (needsFlush(write) && write.bytes > 0) {
        open.push_back(write);
    }
}

// What was stored into mapped memory is not seen, but that nothing has waited for it.
void judgeMappedMemory(const Writes& writes, Report& report)
{
    const auto begun = std::find_if(writes.all.rbegin(), writes.all.rend(), [](const SeenWrite& write) {
        return write.call == vset::kMsyncWithoutWaiting;
    });
    const bool isAwaited =
        std::any_of(writes.all.rbegin(), begun, [](const SeenWrite& write) { return write.isFlush(); });
    if (begun != writes.all.rend() && !isAwaited) {
        report.add({FindingId::NotFlushed, "the last msync came without MS_SYNC, and waits for nothing"});
    }
}
} // namespace

namespace
{
// On the set's own hardware, from which machines are made.
bool wasThere(const fs::path& path)
{
    std::error_code none;
    return fs::exists(fs::symlink_status(path, none));
}

// The old firmware is put aside, or whatever else the update has not written.
bool isOfBefore(const std::vector<SeenWrite>& before, const SeenWrite& naming)
{
    std::error_code none;
    return wasThere(naming.source) && !fs::is_symlink(fs::symlink_status(naming.source, none)) &&
           std::none_of(before.begin(), before.end(), [&](const SeenWrite& write) {
               return write.bytes > 0 && isAtOrBelow(write.path, naming.source);
           });
}

} // namespace

bool isHandedOver(SeenWrite write, const std::vector<SeenWrite>& open, const std::vector<SeenWrite>& later,
                  const Machine& machine)
{
    for (const SeenWrite& each : later) {
        rename(write.path, each);
    }
    const std::string content = contentOf(machine.file(write.path));
    const std::vector<fs::path> files = filesIn(machine.file(kHardware));
    return content.empty() || std::any_of(files.begin(), files.end(), [&](const fs::path& file) {
               const fs::path path = "/" / file.lexically_relative(machine.file("/"));
               const bool isOpen = std::any_of(open.begin(), open.end(), [&](const SeenWrite& each) {
                   return each.path == path && each.isOfFirmware(); // a selector may come last
               });
               return path != write.path && !isOpen && contentOf(file).find(content) != std::string::npos;
           });
}

namespace
{
// What is not flushed when a file gets its name, and should be: the file itself, what is in the directory, or
// firmware elsewhere that the name may select.
std::optional<SeenWrite> unflushedAt(const SeenWrite& naming, const std::vector<SeenWrite>& before,
                                     const std::vector<SeenWrite>& later, const std::vector<SeenWrite>& open,
                                     const Machine& machine)
{
    const auto own = std::find_if(open.begin(), open.end(), [&](const SeenWrite& write) {
        return isAtOrBelow(write.path, naming.source);
    });
    if (own != open.end()) {
        return *own;
    }
    if (isOfBefore(before, naming)) {
        return std::nullopt;
    }
    std::set<std::string> handedOver;
    for (const SeenWrite& write : open) {
        if (!write.isOfFirmware() || handedOver.count(write.path) != 0) {
            continue;
        }
        if (!isHandedOver(write, open, later, machine)) {
            return write;
        }
        handedOver.insert(write.path);
    }
    return std::nullopt;
}

// A new file that gets its name, has content, and of which neither a write nor a flush was seen: it was
// mapped.
bool isStoredUnflushed(const SeenWrite& naming, const std::vector<SeenWrite>& before,
                       const std::vector<SeenWrite>& later, const Machine& machine)
{
    constexpr std::uintmax_t kNote = 256; // bytes
    const bool isSeen = std::any_of(before.begin(), before.end(), [&](const SeenWrite& write) {
        const bool isOwn = isAtOrBelow(write.path, naming.source);
        const bool isLink = write.isNaming() && write.call.rfind("rename", 0) != 0; // written by another name
        return (isOwn && (write.bytes > 0 || isLink)) || (write.isFlush() && (isOwn || write.path.empty()));
    });
    if (isSeen || wasThere(naming.source) || naming.call.rfind("rename", 0) != 0) {
        return false;
    }
    std::string path = naming.source;
    for (const SeenWrite& each : later) {
        rename(path, each);
    }
    return openPlain(machine.file(path), O_RDONLY) && contentOf(machine.file(path)).size() >= kNote;
}

// What is wrong with this naming, in words; "" when nothing is.
std::string whyTooEarly(const SeenWrite& naming, const std::vector<SeenWrite>& before,
                        const std::vector<SeenWrite>& later, const std::vector<SeenWrite>& open,
                        const Machine& machine)
{
    const std::string text = naming.path + " got its name (" + naming.call + ") before what was ";
    if (isStoredUnflushed(naming, before, later, machine)) {
        return text + "stored into it, as mapped memory, was flushed";
    }
    if (const auto unflushed = unflushedAt(naming, before, later, open, machine)) {
        return text + "written into " + (unflushed->path == naming.source ? "it" : unflushed->path) +
               " was flushed";
    }
    return "";
}
} // namespace

void judgeFlushes(const Writes& writes, const Machine& machine, Report& report)
{
    judgeMappedMemory(writes, report);
    std::vector<SeenWrite> open;   // content that no flush of it has followed yet
    std::vector<SeenWrite> before; // by the names that the files have now
    for (auto write = writes.all.begin(); write != writes.all.end(); ++write) {
        const std::string why =
            write->isNaming() ? whyTooEarly(*write, before, {write, writes.all.end()}, open, machine) : "";
        if (!why.empty()) {
            return report.add({FindingId::NotFlushed, why});
        }
        addTo(open, *write);
        before.push_back(*write);
        rename(before, *write);
    }
    const bool isFlushed = std::any_of(writes.all.begin(), writes.all.end(),
                                       [](const SeenWrite& write) { return write.isFlush(); });
    if (!isFlushed && std::any_of(writes.all.begin(), writes.all.end(), needsFlush)) {
        report.add({FindingId::NotFlushed,
                    "there was no flush among " + std::to_string(writes.all.size()) + " writes"});
    }
}

std::vector<SeenWrite> unflushedContent(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        addTo(open, write);
    }
    remove(open, [](const SeenWrite& write) { return !write.position; });
    return open;
}

std::vector<std::filesystem::path> unflushedNames(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        const std::filesystem::path path = write.path;
        if (write.isFlush()) {
            remove(open, [&](const SeenWrite& each) {
                return isFlushOfAll(write) || std::filesystem::path(each.path).parent_path() == path;
            });
        } else if (write.isNaming() || isRemoval(write)) {
            remove(open, [&](const SeenWrite& each) {
                return each.path == write.path || each.path == write.source; // and the new name: see above
            });
            rename(open, write);
        } else if (std::error_code none; write.bytes > 0 && !std::filesystem::exists(path, none)) {
            open.push_back(write); // on the set's own hardware, from which machines are made
        }
    }
    std::vector<std::filesystem::path> names;
    names.reserve(open.size());
    for (const SeenWrite& write : open) {
        names.emplace_back(write.path);
    }
    return names;
}

void lose(const SeenWrite& write, const Machine& machine)
{
    const common::UniqueFd now = openPlain(machine.file(write.path), O_RDWR);
    struct stat file = {};
    if (!now || fstat(now.get(), &file) != 0 || *write.position >= static_cast<std::uint64_t>(file.st_size)) {
        return; // with its name, or it was asked for alone
    }
    const auto position = static_cast<off_t>(*write.position);
    const std::uint64_t rest = static_cast<std::uint64_t>(file.st_size - position);
    std::string old(std::min(write.bytes, rest), '\0');
    // The set's own, from which machines are made.
    const common::UniqueFd before = openPlain(write.path, O_RDONLY);
    (void)!pread(before.get(), old.data(), old.size(), position);
    (void)!pwrite(now.get(), old.data(), old.size(), position);
}

std::vector<SeenWrite> unflushedNamings(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        if (write.isFlush()) {
            remove(open, [&](const SeenWrite& each) { return isFlushOf(write, each); });
        } else if (write.isNaming()) {
            open.push_back(write);
        }
    }
    return open;
}

bool loseName(const SeenWrite& naming, const Machine& machine)
{
    const fs::path now = machine.file(naming.path);
    const fs::path before = naming.path; // on the set's own hardware, from which machines are made
    std::error_code error;
    const fs::file_status had = fs::symlink_status(before, error);
    const fs::path other = machine.file(naming.source);
    if (naming.call == "renameat2" && wasThere(before) && fs::exists(fs::symlink_status(other, error))) {
        return renameat2(AT_FDCWD, now.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0;
    }
    if (fs::is_directory(had) || !fs::exists(fs::symlink_status(now, error))) {
        return false;
    }
    if (naming.call.rfind("rename", 0) == 0) {
        const fs::path source = machine.file(naming.source);
        if (fs::exists(fs::symlink_status(source, error))) {
            return false; // made anew
        }
        fs::rename(now, source, error);
    } else {
        fs::remove(now, error);
    }
    if (!error && fs::exists(had)) {
        copyEntry(before, now);
    }
    return !error;
}

// ---- What was removed too early ----

namespace
{
// Something that was there before the update is not as it was any more.
bool isDestructive(const SeenWrite& write, const SeenWrite& selecting)
{
    const bool isOverwriting = write.bytes > 0 && (write.path != selecting.path || write.isOfFirmware());
    const bool isCutting = write.call.rfind("truncate", 0) == 0 || write.call.rfind("ftruncate", 0) == 0;
    const bool isReplacing = write.isNaming() && write.path != selecting.path;
    return (isRemoval(write) || isOverwriting || isCutting || isReplacing) &&
           write.path != selecting.source && wasThere(write.path);
}

// A name, or a note in a file that was there before.
bool isSelecting(const SeenWrite& write)
{
    const bool isNote = write.bytes > 0 && !write.isOfFirmware() && write.position && !write.isLasting;
    return write.isNaming() || (isNote && wasThere(write.path));
}
} // namespace

std::map<unsigned int, unsigned int> hastyRemovals(const Writes& writes)
{
    constexpr std::size_t kMost = 3; // of the last ones: the new firmware is selected at the end
    std::map<unsigned int, unsigned int> cuts;
    for (std::size_t at = writes.all.size(); at-- > 0 && cuts.size() < 2 * kMost;) {
        const SeenWrite& selecting = writes.all[at];
        if (!isSelecting(selecting)) {
            continue;
        }
        std::set<std::size_t> destructive;
        for (std::size_t later = at + 1;
             later < writes.all.size() && !isFlushOf(writes.all[later], selecting); ++later) {
            if (isDestructive(writes.all[later], selecting)) {
                destructive.insert(later);
            }
        }
        if (!destructive.empty()) { // the numbers begin with 1, and the power is cut before the next one
            cuts.emplace(*destructive.begin() + 2, at + 1);
            cuts.emplace(*destructive.rbegin() + 2, at + 1);
        }
    }
    return cuts;
}
} // namespace fwmod::examiner
