#include "tools/fwmod/check/examiner/mapped-hardware.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/power-cuts.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

// ---- What is seen at a flush ----

namespace
{
constexpr std::uint64_t kPage = 4096; // what a flush is about, and a cut loses

// A part of a file in a process's memory, from one of the kernel's lines about it.
struct Mapping {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t offset = 0;
    std::string path;
};

std::vector<Mapping> writableMappings(pid_t process)
{
    std::vector<Mapping> all;
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    for (std::string line; std::getline(maps, line);) {
        Mapping mapping;
        char mode[8] = "";
        const std::size_t path = line.find(kHardware);
        if (path != std::string::npos &&
            std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %7s %" SCNx64, &mapping.begin, &mapping.end,
                        mode, &mapping.offset) == 4 &&
            std::string(mode) == "rw-s") {
            mapping.path = line.substr(path);
            all.push_back(std::move(mapping));
        }
    }
    return all;
}

// Of memory, as msync is asked for it.
std::vector<MappedFlush::Range> rangesOf(const std::vector<Mapping>& mappings, std::uint64_t address,
                                         std::uint64_t length)
{
    std::vector<MappedFlush::Range> ranges;
    for (const Mapping& mapping : mappings) {
        const std::uint64_t begin = std::max(address, mapping.begin);
        const std::uint64_t end = std::min(address + length, mapping.end);
        if (begin < end) {
            ranges.push_back(
                {mapping.path, begin - mapping.begin + mapping.offset, end - mapping.begin + mapping.offset});
        }
    }
    return ranges;
}
} // namespace

std::optional<MappedFlush> mappedFlushOf(const vset::HardwareWrite& write, const SeenWrite& seen,
                                         const Machine& machine)
{
    constexpr std::uintmax_t kLongest = std::uintmax_t{64} << 20;
    const std::vector<Mapping> mappings = writableMappings(write.thread);
    MappedFlush flush;
    for (const Mapping& mapping : mappings) {
        std::error_code gone;
        const std::uintmax_t size = std::filesystem::file_size(machine.file(mapping.path), gone);
        if (!gone && size <= kLongest && flush.contents.count(mapping.path) == 0) {
            flush.contents[mapping.path] = contentOf(machine.file(mapping.path));
        }
    }
    if (seen.call == "msync") {
        flush.flushed = rangesOf(mappings, write.arguments[0], write.arguments[1]);
    } else if (seen.isFlush()) {
        for (const auto& [path, content] : flush.contents) {
            if (seen.path.empty() || seen.path == path || seen.call == "syncfs") {
                flush.flushed.push_back({path, 0, content.size()});
            }
        }
    }
    return mappings.empty() ? std::nullopt : std::optional(flush);
}

// ---- What a power cut may leave of it ----

namespace
{
using Contents = std::map<std::string, std::string>; // of files, by the set's path

// One page of one file that differs.
struct Page {
    std::string path;
    std::uint64_t at = 0;
    std::size_t changed = 0; // bytes
    bool isFlushed = false;  // by the flush that waits
};

std::size_t bytesOf(const std::vector<Page>& pages)
{
    std::size_t sum = 0;
    for (const Page& page : pages) {
        sum += page.changed;
    }
    return sum;
}

bool isIn(const std::vector<MappedFlush::Range>& ranges, const std::string& path, std::uint64_t at)
{
    return std::any_of(ranges.begin(), ranges.end(), [&](const MappedFlush::Range& range) {
        return range.path == path && at + kPage > range.begin && at < range.end;
    });
}

std::vector<Page> changedPages(const Contents& before, const Contents& now,
                               const std::vector<MappedFlush::Range>& flushed)
{
    std::vector<Page> pages;
    for (const auto& [path, content] : now) {
        const auto old = before.find(path);
        if (old == before.end()) {
            continue; // a new file is in no place yet from which a version could be told
        }
        for (std::uint64_t at = 0; at < content.size(); at += kPage) {
            const std::size_t size = std::min<std::size_t>(kPage, content.size() - at);
            std::size_t changed = 0;
            for (std::size_t byte = at; byte < at + size; ++byte) {
                changed += content[byte] != old->second[byte] ? 1 : 0;
            }
            if (changed > 0) {
                pages.push_back({path, at, changed, isIn(flushed, path, at)});
            }
        }
    }
    return pages;
}

void take(Contents& contents, const Contents& from, const std::vector<Page>& pages)
{
    for (const Page& page : pages) {
        contents[page.path].replace(page.at, kPage, from.at(page.path), page.at, kPage);
    }
}

// The power cuts at one flush after another.
class MappedCuts
{
public:
    MappedCuts(Supervisor& supervisor, Report& report) : supervisor_(supervisor), report_(report) {}
    void judge(const Session& session, const Machine& end);

private:
    void judgeFlush(const MappedFlush& flush);
    void judgeEnd(const Session& session, const Machine& end);
    void takeWritten(const Writes& writes, const Contents& now);
    void cut(FindingId id, const std::string& where, const Contents& now, const std::vector<Page>& all,
             const std::vector<Page>& kept);
    Session lookAt(const Contents& contents);
    std::string whyNoAnswerOf(const Contents& contents);

    Supervisor& supervisor_;
    Report& report_;
    Contents durable_;           // what no cut can take
    unsigned int cutsLeft_ = 16; // of a library that flushes each page there would be hundreds
};

Session MappedCuts::lookAt(const Contents& contents)
{
    Machine machine;
    for (const auto& [path, content] : contents) {
        overwrite(machine.file(path), content);
    }
    return supervisor_.run(machine, startAgain);
}

std::string MappedCuts::whyNoAnswerOf(const Contents& contents)
{
    return whyNoAnswer(lookAt(contents), supervisor_.job());
}

// `id`: when the hardware does not answer then. It is no matter of order when it does not without all of
// them, either.
void MappedCuts::cut(FindingId id, const std::string& where, const Contents& now,
                     const std::vector<Page>& all, const std::vector<Page>& kept)
{
    constexpr std::size_t kFirmware = 256; // bytes; less is a note or a selector
    const Job& job = supervisor_.job();
    if (kept.empty() || kept.size() == all.size() || cutsLeft_ == 0 || report_.has(FindingId::NotFlushed)) {
        return;
    }
    --cutsLeft_;
    Contents contents = durable_;
    take(contents, now, kept);
    const Session look = lookAt(contents);
    const std::string what = "after a power cut " + where + ", which kept " + std::to_string(kept.size()) +
                             " of " + std::to_string(all.size()) +
                             " pages that had been stored into mapped memory and not flushed, ";
    const std::string noAnswer = whyNoAnswer(look, job);
    if (!noAnswer.empty()) {
        const bool isOrder = id == FindingId::NotFlushed && whyNoAnswerOf(durable_).empty();
        report_.add({isOrder ? id : FindingId::DeadAfterCut, what + noAnswer});
    } else if (look.told["version"].asString() == job.versionAfter && job.versionBefore != job.versionAfter &&
               bytesOf(all) - bytesOf(kept) >= kFirmware) {
        report_.add({FindingId::NotFlushed, what + "getActiveVersion told " + quote(job.versionAfter)});
    }
}

void MappedCuts::judgeFlush(const MappedFlush& flush)
{
    for (const auto& [path, content] : flush.contents) {
        if (std::filesystem::exists(path)) { // on the set's own, from which machines are made
            durable_.try_emplace(path, contentOf(path)).first->second.resize(content.size());
        }
    }
    const std::vector<Page> all = changedPages(durable_, flush.contents, flush.flushed);
    std::vector<Page> flushed;
    std::copy_if(all.begin(), all.end(), std::back_inserter(flushed),
                 [](const Page& page) { return page.isFlushed; });
    if (flushed.empty()) {
        return;
    }
    const std::string where = "at flush " + std::to_string(flush.write);
    const auto middle = flushed.begin() + static_cast<std::ptrdiff_t>(flushed.size() / 2);
    const auto least = std::min_element(flushed.begin(), flushed.end(),
                                        [](const Page& a, const Page& b) { return a.changed < b.changed; });
    // The others have not been flushed with them; and one page, as a selector has it, without the rest.
    cut(FindingId::NotFlushed, where, flush.contents, all, flushed);
    cut(FindingId::NotFlushed, where, flush.contents, all, {*least});
    cut(FindingId::DeadAfterCut, where, flush.contents, all, {flushed.begin(), middle});
    cut(FindingId::DeadAfterCut, where, flush.contents, all, {middle, flushed.end()});
    take(durable_, flush.contents, flushed);
}

// How many pages the last flush has found as they are now, and has left out.
std::size_t leftOutBy(const MappedFlush& last, const Contents& now, const std::vector<Page>& open)
{
    return static_cast<std::size_t>(std::count_if(open.begin(), open.end(), [&](const Page& page) {
        const auto then = last.contents.find(page.path);
        return then != last.contents.end() && page.at < then->second.size() &&
               then->second.compare(page.at, kPage, now.at(page.path), page.at, kPage) == 0;
    }));
}

// What was written by calls is judged as such.
void MappedCuts::takeWritten(const Writes& writes, const Contents& now)
{
    for (const SeenWrite& write : writes.all) {
        const auto content = now.find(write.path);
        if (write.bytes == 0 || !write.position || content == now.end()) {
            continue;
        }
        const std::uint64_t end =
            std::min<std::uint64_t>(*write.position + write.bytes, content->second.size());
        for (std::uint64_t at = *write.position / kPage * kPage; at < end; at += kPage) {
            durable_[write.path].replace(at, kPage, content->second, at, kPage);
        }
    }
}

void MappedCuts::judgeEnd(const Session& session, const Machine& end)
{
    const MappedFlush* const last = session.mappedFlushes.empty() ? nullptr : &session.mappedFlushes.back();
    Contents now;
    for (const auto& [path, content] : durable_) {
        now[path] = contentOf(end.file(path));
        now[path].resize(content.size());
    }
    takeWritten(session.writes, now);
    const std::vector<Page> open = changedPages(durable_, now, {});
    if (report_.has(FindingId::NotFlushed) || open.empty()) {
        return;
    }
    const std::string told = lookAt(durable_).told["version"].asString();
    const std::string without =
        "; without it getActiveVersion " + (told.empty() ? "tells nothing" : "tells " + quote(told));
    const std::size_t leftOut = last != nullptr ? leftOutBy(*last, now, open) : 0;
    if (told == supervisor_.job().versionAfter) {
        return;
    }
    if (leftOut == 0) {
        report_.add({FindingId::LastNotFlushed,
                     "no flush came after what was stored last into mapped memory" + without});
    } else {
        report_.add({FindingId::NotFlushed,
                     "flush " + std::to_string(last->write) + ", the last one, left out " +
                         std::to_string(leftOut) + (leftOut == 1 ? " page that was" : " pages that were") +
                         " stored into mapped memory before it and never flushed" + without});
    }
}

void MappedCuts::judge(const Session& session, const Machine& end)
{
    for (const MappedFlush& flush : session.mappedFlushes) {
        judgeFlush(flush);
    }
    judgeEnd(session, end);
}
} // namespace

void cutMappedHardware(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable || !job.faults.isMapped) {
        return;
    }
    Machine machine;
    const Session session = supervisor.run(machine, updateUntilCut, {true, 0, 0, 0, true});
    if (session.told["result"].asInt() == 0 && !session.death) {
        MappedCuts(supervisor, report).judge(session, machine);
    }
}
} // namespace fwmod::examiner
