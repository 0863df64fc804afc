#include "tools/fwmod/check/examiner/power-cuts.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <thread>
#include <unistd.h>
#include <utility>

#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/updates/odd-images.h"
#include "tools/fwmod/check/examiner/updates/updates.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

namespace
{
constexpr double kNearlyAll = 0.9; // of the bytes: then the new version may be told
} // namespace

void updateUntilCut(Worker& worker)
{
    worker.overlookManners();
    if (!worker.load()) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    if (worker.job().version) {
        worker.checkVersion(*worker.job().version);
    }
    worker.update({worker.job().image, worker.job().checksum, false, ""});
}

namespace
{
// Whether the daemon would update again, or has to because the new version is told too early.
bool isPending(const Told& told, const Job& job)
{
    const bool isDone = told.version == job.versionAfter && told.verdict && *told.verdict <= 0;
    const bool isWanted = !job.isOfferNewer || !told.verdict || *told.verdict > 0;
    return !isDone && (isWanted || told.version == job.versionAfter);
}

} // namespace

void startAgain(Worker& worker)
{
    const std::string where = "after the power cut";
    worker.overlookManners();
    const bool isLoaded = worker.load();
    worker.tell("loaded", isLoaded);
    if (!isLoaded) {
        return;
    }
    const Told told = tellVersion(worker, where);
    worker.tell("asked", true);
    if (!told.version || !isPending(told, worker.job())) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    worker.update({worker.job().image, worker.job().checksum, false, where});
}

namespace
{
void lookAtEnd(Worker& worker)
{
    worker.overlookManners();
    if (worker.load()) {
        tellVersion(worker, "after the update that followed a power cut");
    }
}

} // namespace

// ---- Judgement ----

std::string whyNoAnswer(const Session& session, const Job& job)
{
    if (session.death && !session.told.isMember("asked")) {
        return session.death->detail;
    }
    if (!session.told["loaded"].asBool()) {
        return "the library does not load";
    }
    if (!session.told.isMember("version")) {
        return session.findings.empty() ? "getActiveVersion told nothing" : session.findings.front().detail;
    }
    // With one bank there may be no firmware for a while. Then another version is told, below the offered
    // one.
    const std::string version = session.told["version"].asString();
    const bool isAwaited = session.told.isMember("verdict") && session.told["verdict"].asInt() > 0;
    if (version != job.versionBefore && version != job.versionAfter && !isAwaited) {
        return "getActiveVersion told " + quote(version) +
               ", neither the old nor the new version, and checkVersion does not want the offered one";
    }
    return "";
}

namespace
{
std::string whyNoUpdate(const Session& session)
{
    if (session.death) {
        return session.death->detail;
    }
    if (!session.told.isMember("result")) {
        return session.findings.empty() ? "doUpdate did not answer" : session.findings.front().detail;
    }
    if (session.told["result"].asInt() != 0) {
        return "doUpdate returned " + session.told["result"].asString() +
               ", errno: " + errorName(session.told["error"].asInt());
    }
    return "";
}

// What the update has to write at least: less than it wrote when it keeps a spare copy.
std::uint64_t bytesOfFirmware(const Job& job)
{
    std::error_code unknown; // an external module finds its image itself
    const std::uintmax_t size = std::filesystem::file_size(job.image, unknown);
    return unknown ? job.bytes : std::min<std::uint64_t>(job.bytes, size);
}

bool isNearlyAll(const Session& cut, const Job& job)
{
    return static_cast<double>(cut.writes.bytes) >= kNearlyAll * static_cast<double>(bytesOfFirmware(job));
}

// The new version, although most of the firmware is not there.
bool isToldTooEarly(const Session& cut, const Session& look, const Job& job)
{
    return job.versionBefore != job.versionAfter && look.told["version"].asString() == job.versionAfter &&
           !isNearlyAll(cut, job);
}

// Also when the daemon has asked it: with the first question a library may put back what it has kept of the
// old firmware in a form of its own.
bool isOldGoneForGood(Supervisor& supervisor, const Machine& machine)
{
    if (!isOldFirmwareGone(machine)) {
        return false;
    }
    Machine asked;
    takeHardware(machine, asked);
    supervisor.run(asked, lookAtEnd);
    return isOldFirmwareGone(asked);
}

// ---- What no flush had followed ----

// The version after the same cut, where those writes have not reached the hardware.
std::string versionWithout(Supervisor& supervisor, unsigned int cutAt, const std::vector<SeenWrite>& lost)
{
    Machine machine;
    if (!supervisor.run(machine, updateUntilCut, {true, cutAt}).isCut) {
        return "";
    }
    for (const SeenWrite& write : lost) {
        lose(write, machine);
    }
    return supervisor.run(machine, lookAtEnd).told["version"].asString();
}

// Of its place in the file nothing else was written: what it had before is what a cut leaves there.
bool isWrittenOnce(const SeenWrite& write, const Writes& writes)
{
    return std::count_if(writes.all.begin(), writes.all.end(), [&](const SeenWrite& each) {
               return each.path == write.path && each.bytes > 0 &&
                      (!each.position || (*each.position < *write.position + write.bytes &&
                                          *write.position < *each.position + each.bytes));
           }) == 1;
}

// What keeps the hardware from answering after the same cut, where that write alone has not reached it.
std::string whyNoAnswerWithout(Supervisor& supervisor, unsigned int cutAt, const SeenWrite& lost)
{
    Machine machine;
    if (!supervisor.run(machine, updateUntilCut, {true, cutAt}).isCut) {
        return "";
    }
    lose(lost, machine);
    return whyNoAnswer(supervisor.run(machine, startAgain), supervisor.job());
}

// The new version is told, and whether that comes of the last write: the ones before it may be lost, and it
// not. Only looked at where some of them were not flushed. `machine` is the hardware after the cut.
std::optional<Finding> judgeOrder(Supervisor& supervisor, const Session& cut, unsigned int cutAt,
                                  const Machine& machine)
{
    const Job& job = supervisor.job();
    const std::vector<SeenWrite> open = unflushedContent(cut.writes);
    if (open.size() < 2) {
        return std::nullopt;
    }
    const auto content = std::find_if(open.rbegin() + 1, open.rend(), [&](const SeenWrite& write) {
        return write.isOfFirmware() && !isHandedOver(write, open, {}, machine);
    });
    if (content == open.rend()) {
        return std::nullopt;
    }
    const std::string noAnswer =
        isWrittenOnce(*content, cut.writes) ? whyNoAnswerWithout(supervisor, cutAt, *content) : "";
    if (!noAnswer.empty()) {
        return Finding{FindingId::NotFlushed,
                       "after a power cut that lost a " + content->call + " to " + content->path +
                           ", which no flush had followed, and kept what came after it: " + noAnswer};
    }
    if (versionWithout(supervisor, cutAt, open) == job.versionAfter ||
        versionWithout(supervisor, cutAt, {*content}) != job.versionAfter) {
        return std::nullopt; // a spare copy, or the version is told of whole firmware alone
    }
    return Finding{FindingId::NotFlushed,
                   "after a power cut that lost a " + content->call + " to " + content->path +
                       ", which no flush had followed, getActiveVersion told " + quote(job.versionAfter)};
}

// Nothing when the update ended before the cut.
std::optional<std::vector<Finding>> cutAt(Supervisor& supervisor, unsigned int write, bool& isOrderJudged)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session cut = supervisor.run(machine, updateUntilCut, {true, write});
    if (!cut.isCut) {
        return std::nullopt;
    }
    const bool isOldGone = isNearlyAll(cut, job) && isOldGoneForGood(supervisor, machine);
    const Session look = supervisor.run(machine, startAgain);
    const std::string noAnswer = whyNoAnswer(look, job);
    if (!noAnswer.empty()) {
        return std::vector<Finding>{{FindingId::DeadAfterCut, noAnswer}};
    }
    std::vector<Finding> findings;
    if (isToldTooEarly(cut, look, job)) {
        const auto percent = job.bytes == 0 ? 0 : cut.writes.bytes * 100 / job.bytes;
        findings.push_back({FindingId::VersionTooEarly, "getActiveVersion told " + quote(job.versionAfter) +
                                                            ", and " + std::to_string(percent) +
                                                            " % of the bytes had been written"});
    }
    const std::string version = look.told["version"].asString();
    if (isOldGone && version == job.versionBefore && version != job.versionAfter) {
        findings.push_back({FindingId::OldVersionOfNothing,
                            "getActiveVersion told " + quote(version) +
                                ", and hardly anything of what the hardware held before is there"});
    }
    if (version == job.versionAfter && version != job.versionBefore && findings.empty() &&
        (!std::exchange(isOrderJudged, true) || write == *job.cuts.rbegin())) {
        if (const std::optional<Finding> order = judgeOrder(supervisor, cut, write, machine)) {
            findings.push_back(*order);
        }
    }
    const bool isDone =
        version == job.versionAfter && look.told.isMember("verdict") && look.told["verdict"].asInt() <= 0;
    if (isDone) {
        return findings; // the daemon would not update it again
    }
    if (!look.death && !look.told.isMember("result")) {
        findings.push_back({FindingId::NoUpdateAfterCut,
                            "checkVersion does not take the offered version as newer any more"});
        return findings;
    }
    const std::string noUpdate = whyNoUpdate(look);
    if (!noUpdate.empty()) {
        findings.push_back({FindingId::NoUpdateAfterCut, noUpdate});
        return findings;
    }
    const Session end = supervisor.run(machine, lookAtEnd);
    if (end.told["version"].asString() != job.versionAfter) {
        findings.push_back({FindingId::NoUpdateAfterCut, "after the next update getActiveVersion told " +
                                                             quote(end.told["version"].asString())});
    } else if (job.holding.isKnown() && !isHeld(machine, imageOf(job), job.holding)) {
        findings.push_back({FindingId::DamagedAfterCut,
                            "after the next update " + job.holding.firstPath() +
                                " does not hold the image as it does after an update without a power cut"});
    }
    return findings;
}

// ---- Two cuts in a row ----

// The next update is cut, too: at its first writes, where it may put aside what it takes for firmware, and
// further on.
std::set<unsigned int> secondCuts(const Job& job)
{
    return {1, 2, 3, job.faults.middleWrite, job.faults.lateWrite, job.faults.lateWrite + 1};
}

// Nothing when the hardware answers as it must.
std::optional<Finding> cutAgain(Supervisor& supervisor, const Machine& first, unsigned int write)
{
    Machine machine;
    takeHardware(first, machine);
    if (!supervisor.run(machine, updateUntilCut, {true, write}).isCut) {
        return std::nullopt;
    }
    const std::string noAnswer = whyNoAnswer(supervisor.run(machine, startAgain), supervisor.job());
    if (noAnswer.empty()) {
        return std::nullopt;
    }
    return Finding{FindingId::DeadAfterCut,
                   "the power was cut at write " + std::to_string(supervisor.job().faults.lateWrite) +
                       ", and in the next update at write " + std::to_string(write) + ": " + noAnswer};
}

// ---- What another image has left ----

std::vector<SeenWrite> placedBlocks(const Writes& writes)
{
    std::vector<SeenWrite> blocks;
    std::copy_if(writes.all.begin(), writes.all.end(), std::back_inserter(blocks),
                 [](const SeenWrite& write) { return write.isOfFirmware() && write.position; });
    return blocks;
}

// The one before the last block of the content, of which a note may tell that it was written; nothing where
// its place is not known.
std::optional<SeenWrite> blockWritten(const Writes& writes)
{
    const std::vector<SeenWrite> blocks = placedBlocks(writes);
    return blocks.size() < 2 ? std::nullopt : std::optional(blocks[blocks.size() - 2]);
}

// What that write has brought is there, and is the image's: not a copy of the old firmware.
bool isOfImage(const SeenWrite& block, const Machine& machine, const std::string& image)
{
    const std::string content = contentOf(machine.file(block.path));
    return *block.position + block.bytes <= content.size() &&
           image.find(content.substr(*block.position, block.bytes)) != std::string::npos;
}

// One block of each file beside that one which has the image, too: it may only carry it.
std::vector<SeenWrite> carriedBlocks(const Writes& writes, const SeenWrite& last, const Machine& machine,
                                     const std::string& image)
{
    constexpr std::size_t kMostFiles = 3;
    std::map<std::string, SeenWrite> byFile;
    for (const SeenWrite& block : placedBlocks(writes)) {
        if (block.path != last.path && byFile.size() < kMostFiles && isOfImage(block, machine, image)) {
            byFile[block.path] = block;
        }
    }
    std::vector<SeenWrite> blocks;
    blocks.reserve(byFile.size());
    for (const auto& [path, block] : byFile) {
        blocks.push_back(block);
    }
    return blocks;
}

// False when the file is not there any more by that name.
bool changeByteOf(const SeenWrite& write, const Machine& machine)
{
    const common::UniqueFd file = openPlain(machine.file(write.path), O_RDWR);
    const auto at = static_cast<off_t>(*write.position + write.bytes / 2);
    char byte = 0;
    if (!file || pread(file.get(), &byte, 1, at) != 1) {
        return false;
    }
    byte = static_cast<char>(~byte);
    return pwrite(file.get(), &byte, 1, at) == 1;
}

// Nothing when one of several next starts brings the offered version, and the image that belongs to it.
// `what` has been left, in words.
std::optional<Finding> updateOverRemains(Supervisor& supervisor, Machine& machine, int starts,
                                         const std::string& what)
{
    const Job& job = supervisor.job();
    std::string why = "doUpdate did not answer";
    for (int start = 0; start < starts; ++start) {
        const Session look = supervisor.run(machine, startAgain);
        const std::string noAnswer = whyNoAnswer(look, job);
        if (!noAnswer.empty()) {
            return Finding{FindingId::DeadAfterCut, what + noAnswer};
        }
        if (look.death) {
            return Finding{FindingId::NoUpdateAfterCut, what + look.death->detail};
        }
        if (look.told["version"].asString() == job.versionAfter && !look.told.isMember("result")) {
            return std::nullopt; // too early, which is told by itself, or the one before has worked after all
        }
        why = whyNoUpdate(look);
        if (why.empty()) {
            break;
        }
    }
    const std::string version = supervisor.run(machine, lookAtEnd).told["version"].asString();
    if (version != job.versionAfter) {
        const std::string told = "getActiveVersion told " + quote(version) + " after the next update";
        return Finding{FindingId::NoUpdateAfterCut,
                       what + (why.empty() ? told : (starts > 1 ? "three starts later " : "") + why)};
    }
    if (job.holding.isKnown() && !isHeld(machine, imageOf(job), job.holding)) {
        return Finding{FindingId::DamagedAfterCut,
                       what + "the next update kept it, and getActiveVersion told " + quote(version)};
    }
    return std::nullopt;
}

// Another image that an update is to be cut off with; it is found at the usual place by an external module.
struct OtherImage {
    std::string file;
    unsigned long checksum = 0;
    std::filesystem::path directory; // for an external module
    std::string what;                // in words
};

// A cut may have come when that image counted already: it is no remains, and no older than the offered one.
bool isWholeFirmware(Supervisor& supervisor, const Machine& machine)
{
    const std::string& version = supervisor.job().otherVersion;
    Machine asked;
    takeHardware(machine, asked);
    const Session look = version.empty() ? Session() : supervisor.run(asked, lookAtEnd);
    return !version.empty() && look.told["version"].asString() == version && look.told.isMember("verdict") &&
           look.told["verdict"].asInt() <= 0;
}

Session updateWithOther(Supervisor& supervisor, Machine& machine, const OtherImage& other, const Watch& watch)
{
    if (!other.directory.empty()) {
        machine.replaceDirectory(supervisor.job().imageDirectory, other.directory);
    }
    const auto update = [&](Worker& worker) {
        worker.overlookManners();
        if (worker.load()) {
            worker.setContext(worker.job().caller, "");
            worker.update({other.file, other.checksum, false, "of " + other.what});
        }
    };
    return supervisor.run(machine, update, watch);
}

// Where to cut it, one after the other: as the offered one; and where its own content ends, of which a longer
// one leaves something behind the end of the offered one.
std::vector<unsigned int> cutsOfOther(Supervisor& supervisor, const OtherImage& other, bool isGiven)
{
    const FaultPlaces& places = supervisor.job().faults;
    std::vector<unsigned int> cuts = {places.lateWrite, places.middleWrite};
    if (isGiven) {
        Machine whole;
        const unsigned int end =
            faultPlacesOf(updateWithOther(supervisor, whole, other, {true}).writes).endWrite;
        if (end > places.endWrite) {
            cuts.insert(cuts.begin(), end);
        }
    }
    return cuts;
}

// Nothing, too, when the library refuses that image.
std::optional<Finding> cutOtherImage(Supervisor& supervisor, const OtherImage& other, unsigned int write,
                                     bool& isCut)
{
    Machine first;
    if (!updateWithOther(supervisor, first, other, {true, write}).isCut) {
        return std::nullopt;
    }
    isCut = true;
    if (isWholeFirmware(supervisor, first)) {
        return std::nullopt;
    }
    Machine machine; // with the offered image again
    takeHardware(first, machine);
    return updateOverRemains(supervisor, machine, 1,
                             "after an update with " + other.what + " that was cut at write " +
                                 std::to_string(write) + ", ");
}

// A library that has nothing but the given checksum to know an image by takes this one for sound.
OtherImage changedImage(const Job& job, const Machine& place)
{
    std::string image = imageOf(job);
    const std::string file = place.file("/" + std::filesystem::path(job.image).filename().string());
    for (std::size_t at = image.size() / 4; at < image.size();
         at += std::max<std::size_t>(image.size() / 4, 1)) {
        image[at] = static_cast<char>(~image[at]);
    }
    overwrite(file, image);
    return {file, checksumOf(image), "", "another image of the same length"};
}

// What was written counts already: a journal, or all of it where a spare copy follows. To change that is no
// matter of what another image has left.
bool isNewFirmware(Supervisor& supervisor, const Machine& machine)
{
    Machine asked;
    takeHardware(machine, asked);
    return supervisor.run(asked, lookAtEnd).told["version"].asString() == supervisor.job().versionAfter;
}

std::optional<Finding> updateOverChanged(Supervisor& supervisor, Machine& machine, const SeenWrite& block)
{
    constexpr int kStarts = 3; // a byte that is another one may be found at the end, and all begun anew then
    if (!changeByteOf(block, machine)) {
        return std::nullopt;
    }
    return updateOverRemains(supervisor, machine, kStarts,
                             "with a byte of what had been written to " + block.path +
                                 " changed, as an update with another image leaves it, ");
}

// The last block but one of what was written, as if another image had left it there; and each file that has
// the image as well.
std::optional<Finding> changeRemains(Supervisor& supervisor)
{
    Machine machine;
    const Session cut = supervisor.run(machine, updateUntilCut, {true, supervisor.job().faults.lateWrite});
    const std::optional<SeenWrite> last = blockWritten(cut.writes);
    if (!cut.isCut || !last) {
        return std::nullopt;
    }
    std::vector<SeenWrite> blocks = carriedBlocks(cut.writes, *last, machine, imageOf(supervisor.job()));
    blocks.push_back(*last);
    for (const SeenWrite& block : blocks) {
        Machine other;
        takeHardware(machine, other);
        const std::optional<Finding> finding = updateOverChanged(supervisor, other, block);
        if (finding) {
            return isNewFirmware(supervisor, machine) ? std::nullopt : finding;
        }
    }
    return std::nullopt;
}
} // namespace

void cutPowerTwice(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable || job.faults.lateWrite == 0) {
        return;
    }
    Machine machine;
    if (!supervisor.run(machine, updateUntilCut, {true, job.faults.lateWrite}).isCut) {
        return;
    }
    for (const unsigned int write : secondCuts(job)) {
        if (const std::optional<Finding> finding = cutAgain(supervisor, machine, write)) {
            return report.add(*finding);
        }
    }
}

void updateAfterAnotherImage(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable || job.faults.lateWrite == 0) {
        return;
    }
    if (const std::optional<Finding> finding = changeRemains(supervisor)) {
        return report.add(*finding);
    }
    const Machine place;
    const bool isGiven = !job.otherImage.empty();
    if (!isGiven && job.isExternal) {
        return;
    }
    const OtherImage other =
        isGiven ? OtherImage{job.otherImage, job.otherChecksum,
                             job.isExternal ? job.otherDirectory : std::string(), "the other image"}
                : changedImage(job, place);
    bool isCut = false;
    for (const unsigned int write : cutsOfOther(supervisor, other, isGiven)) {
        if (const auto finding = cutOtherImage(supervisor, other, write, isCut)) {
            return report.add(*finding);
        }
    }
    if (isGiven && !isCut) {
        report.notes.emplace_back(
            "No update with the other image was cut: it was refused, or had fewer writes than the offered one.");
    }
}

// ---- What was removed or overwritten too early ----

namespace
{
// Nothing when the hardware answers as it must, with the old firmware or the new one.
std::optional<Finding> loseSelecting(Supervisor& supervisor, unsigned int cutAt, unsigned int selecting)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session cut = supervisor.run(machine, updateUntilCut, {true, cutAt});
    if (cut.death || cut.writes.all.size() + 1 < cutAt) {
        return std::nullopt; // it was another update
    }
    const SeenWrite& lost = cut.writes.all[selecting - 1];
    const SeenWrite& last = cut.writes.all[cutAt - 2];
    if (lost.isNaming()) {
        if (!loseName(lost, machine)) {
            return std::nullopt;
        }
    } else {
        lose(lost, machine);
    }
    const bool isOldGone = isOldGoneForGood(supervisor, machine);
    const Session look = supervisor.run(machine, startAgain);
    std::string why = whyNoAnswer(look, job);
    if (why.empty() && isOldGone && look.told["version"].asString() == job.versionBefore) {
        why = "getActiveVersion told " + quote(job.versionBefore) +
              ", and hardly anything of what the hardware held before is there";
    }
    if (why.empty()) {
        return std::nullopt;
    }
    return Finding{FindingId::OldRemovedTooEarly, "after a power cut that lost the " + lost.call + " to " +
                                                      lost.path +
                                                      ", which no flush had followed, and kept the " +
                                                      last.call + " to " + last.path + " behind it: " + why};
}
} // namespace

void loseWhatSelects(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    for (const auto& [cutAt, selecting] : job.faults.hastyRemovals) {
        if (const std::optional<Finding> finding = loseSelecting(supervisor, cutAt, selecting)) {
            return report.add(*finding);
        }
    }
}

// ---- Several at once ----

namespace
{
// Every so-many-th cut.
void cutEvery(Supervisor supervisor, unsigned int lane, unsigned int lanes, const Lanes::Tell& tell)
{
    const std::vector<unsigned int> cuts(supervisor.job().cuts.begin(), supervisor.job().cuts.end());
    bool isOrderJudged = false; // once the new version is told
    for (std::size_t index = lane; index < cuts.size(); index += lanes) {
        const unsigned int callsBefore = supervisor.calls();
        const std::optional<std::vector<Finding>> seen = cutAt(supervisor, cuts[index], isOrderJudged);
        tell(lineOf(CutTrial{cuts[index], seen.has_value(), seen.value_or(std::vector<Finding>()),
                             supervisor.calls() - callsBefore}));
    }
}

unsigned int laneCount(std::size_t cuts)
{
    constexpr std::size_t kMostLanes = 8;
    constexpr std::size_t kForEachProcessor = 3; // hardware and namespaces: a lane waits most of its time
    const std::size_t processors = std::max(std::thread::hardware_concurrency(), 1U);
    return static_cast<unsigned int>(std::min({kMostLanes, kForEachProcessor * processors, cuts}));
}
} // namespace

void cutPower(const Supervisor& supervisor, Lanes& lanes)
{
    const unsigned int count = laneCount(supervisor.job().cuts.size());
    for (unsigned int lane = 0; lane < count; ++lane) {
        lanes.start([&](const Lanes::Tell& tell) { cutEvery(supervisor, lane, count, tell); });
    }
}
} // namespace fwmod::examiner
