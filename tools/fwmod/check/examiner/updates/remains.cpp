// What an update has left behind: notes beside the firmware, and what a power cut after it can still take
// away.
#include <algorithm>
#include <filesystem>
#include <functional>

#include "common/files/file-copy.h"
#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
// The version of this hardware after a power cut that has lost something more of it.
std::string versionAfterLoss(Supervisor& supervisor, const Machine& machine,
                             const std::function<void(const Machine&)>& loss)
{
    Machine cut;
    fs::remove_all(cut.file(kHardware));
    copyTree(machine.file(kHardware), cut.file(kHardware));
    loss(cut);
    return lookAgain(supervisor, cut).told["version"].asString();
}

// What an update has left beside the hardware's files and is too small for firmware.
struct Notes {
    std::vector<fs::path> files;
    bool areAlone = true; // there is no new firmware beside them
};

Notes newNotes(const Machine& machine, const Machine& before)
{
    constexpr std::uintmax_t kLongestNote = 256; // bytes
    const fs::path root = machine.file("/");
    Notes notes;
    for (const fs::path& file : filesIn(machine.file(kHardware))) {
        const fs::path path = "/" / file.lexically_relative(root);
        if (fs::exists(before.file(path))) {
            continue;
        }
        if (fs::file_size(file) > kLongestNote) {
            notes.areAlone = false;
        } else {
            notes.files.push_back(path);
        }
    }
    return notes;
}

// The new firmware's version is told without them, too: they only repeat it, and are no part of it.
bool areSpare(Supervisor& supervisor, const Machine& machine, const Notes& notes, const std::string& version)
{
    return versionAfterLoss(supervisor, machine, [&](const Machine& cut) {
               for (const fs::path& note : notes.files) {
                   fs::remove(cut.file(note));
               }
           }) == version;
}
} // namespace

void judgeNotes(Supervisor& supervisor, const Machine& machine, const std::string& version, Report& report)
{
    Machine old;
    const Notes notes = newNotes(machine, old);
    if (notes.files.empty() || version.empty()) {
        return;
    }
    for (const fs::path& note : notes.files) {
        fs::create_directories(old.file(note).parent_path());
        common::copyFile(machine.file(note), old.file(note));
        fs::permissions(old.file(note), fs::perms(0644));
    }
    const std::string told = lookAgain(supervisor, old).told["version"].asString();
    if (told == version && (notes.areAlone || areSpare(supervisor, machine, notes, version))) {
        report.add({FindingId::VersionOfNote, "with the old hardware put back beside " +
                                                  notes.files.front().string() + ", getActiveVersion told " +
                                                  quote(told)});
    }
}

namespace
{
std::string inWords(const std::string& told)
{
    return "; without it getActiveVersion " + (told.empty() ? "tells nothing" : "tells " + quote(told));
}
} // namespace

void judgeEnd(Supervisor& supervisor, const Machine& machine, const Writes& writes,
              const std::string& version, const std::string& where, Report& report)
{
    if (version.empty()) {
        return;
    }
    const auto judge = [&](const std::string& what, const std::function<void(const Machine&)>& loss) {
        const std::string told =
            report.has(FindingId::LastNotFlushed) ? version : versionAfterLoss(supervisor, machine, loss);
        if (told != version) {
            report.add({FindingId::LastNotFlushed, where + what + inWords(told)});
        }
    };
    if (const std::vector<SeenWrite> open = unflushedContent(writes); !open.empty()) {
        judge("no flush came after the last write (" + open.back().inWords() + ")", [&](const Machine& cut) {
            std::for_each(open.begin(), open.end(), [&](const SeenWrite& write) { lose(write, cut); });
        });
    }
    if (const std::vector<fs::path> names = unflushedNames(writes); !names.empty()) {
        judge("no flush of " + names.back().parent_path().string() + " came after " +
                  names.back().filename().string() + " had been made there",
              [&](const Machine& cut) {
                  std::error_code gone;
                  std::for_each(names.begin(), names.end(),
                                [&](const fs::path& name) { fs::remove(cut.file(name), gone); });
              });
    }
    for (const SeenWrite& naming : unflushedNamings(writes)) {
        judge("no flush of " + fs::path(naming.path).parent_path().string() + " came after " +
                  fs::path(naming.path).filename().string() + " had got its name (" + naming.call + ")",
              [&](const Machine& cut) { loseName(naming, cut); });
    }
}
} // namespace fwmod::examiner
