#include "tools/fwmod/check/examination.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <tarnwick/control.h>
#include <thread>

#include "common/process/interruption.h"
#include "common/terminal/visible-text.h"
#include "include/tarnwick/television.h"
#include "src/src/fw-update-symbol.h"
#include "tools/fwmod/check/cut-survey.h"
#include "tools/fwmod/check/protocol/job.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/control-library.h"
#include "tools/fwmod/images/identifier.h"
#include "tools/fwmod/images/information.h"
#include "tools/fwmod/images/inspection.h"
#include "tools/fwmod/programs.h"
#include "vset/television/set-contents.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
constexpr double kHaste = 100;            // the set's clock, where no duration is measured
constexpr unsigned int kUnknownTime = 60; // seconds, for a module without an information file

// ---- What can be told without loading the library ----

// As the daemon would call it, also when the file is named otherwise.
std::string libraryName(const fs::path& file)
{
    const std::string name = file.filename();
    return file.extension() == ".so" ? std::string(file.stem()) : name.substr(0, name.find('.', 1));
}

// ---- The set ----

using ShowProgress = std::function<void(const std::string&, unsigned int)>;

class Examination
{
public:
    Examination(const ExaminationRequest& request, ShowProgress showProgress)
        : request_(request), showProgress_(std::move(showProgress)),
          examiner_(programBesideVset("control-examiner"))
    {
    }
    ExaminationResult conduct();

private:
    bool judgeFile();
    void makeSet();
    void addPackage();
    void addFirmware();
    void addOther();
    std::string useInformation(const fs::path& directory, const std::string& image, const fs::path& origin);
    void examine();
    bool bringsNews(const Report& report) const;
    Report confirmTrials();
    void explainDuration(double seconds);
    std::vector<CutTrial> takeCuts(const Report& report);
    void finishCuts(CutSurvey& survey, const std::vector<CutTrial>& hasty);
    Report run(const char* mode, std::optional<double> clockRate);
    std::optional<Report> follow(const char* mode, std::optional<double> clockRate);
    [[noreturn]] void failOnExaminer() const;
    void take(const Report& report);
    void tellMeasured(const Measured& measured);
    void checkNames(const std::string& identifier) const;

    const common::InterruptionWatch watch_; // also while the set is removed
    const ExaminationRequest& request_;
    ShowProgress showProgress_;
    fs::path examiner_;
    ScratchDirectory scratch_;
    std::optional<tarnwick::Television> set_;
    Job job_;
    ExaminationResult result_;
    double load_ = 0; // of the PC, before
};

// False when there is nothing to load.
bool Examination::judgeFile()
{
    const std::string name = request_.library.filename();
    if (request_.library.extension() != ".so") {
        result_.report.add({FindingId::MisnamedFile,
                            name + "; the module would be called " + libraryName(request_.library)});
    }
    const std::string problem = whyNotLoadable(request_.library);
    if (!problem.empty()) {
        result_.report.add({FindingId::NoSharedLibrary, problem});
    }
    return problem.empty();
}

void Examination::makeSet()
{
    requireRoomForSet(scratch_.path());
    tarnwick::Making making{vsetProgram(), scratch_.path()};
    making.isBare = true;
    set_.emplace(making);
    set_->watchWaits(common::InterruptionWatch::check);
    const std::string name = libraryName(request_.library);
    const std::string library = std::string(vset::inset::kProductControls) + "/" + name + ".so";
    set_->put(request_.library, vset::inset::kProductControls, name + ".so");
    fs::permissions(set_->outside(library), fs::perms(0755));
    if (!request_.hardware.empty()) {
        set_->putHardware(request_.hardware);
        job_.hasHardware = true;
    }
    job_.name = name;
    job_.library = library;
    job_.isExternal = isExternalName(name);
    job_.expectedTime = kUnknownTime;
    job_.caller = TARNWICK_CONTROL_CALLER_PACKAGE;
    const ControlLibrary file = readControlLibrary(request_.library);
    job_.otherNames = file.otherNames;
    for (const EntryPointState& entry : file.entryPoints) {
        if (!entry.exported && !entry.mangled.empty()) {
            job_.mangled[entry.name] = entry.mangled;
        }
    }
    if (!request_.package.empty()) {
        addPackage();
    }
    if (!request_.firmware.empty()) {
        addFirmware();
    }
    if (!request_.other.empty()) {
        addOther();
    }
}

namespace
{
// `origin` is the file or directory that the person has named.
InformationReport requireInformation(const fs::path& directory, const std::string& image,
                                     const fs::path& origin)
{
    for (const std::string& name : {std::string("info.json"), image}) {
        if (!fs::is_regular_file(directory / name)) {
            throw common::Failure(common::shortened(name) + " is not in " + common::shown(origin) +
                                  ", where the daemon looks for it");
        }
    }
    InformationReport report = checkInformation(directory / "info.json", directory / image);
    if (!report.accepted) {
        throw common::Failure("the daemon would refuse the image:\n" +
                              formatReport(origin / "info.json", report));
    }
    return report;
}
} // namespace

std::string Examination::useInformation(const fs::path& directory, const std::string& image,
                                        const fs::path& origin)
{
    const InformationReport report = requireInformation(directory, image, origin);
    job_.version = report.values.version;
    job_.checksum = report.values.crc;
    job_.expectedTime = report.values.expected_time;
    return report.values.ui_use;
}

void Examination::addPackage()
{
    if (job_.isExternal) {
        throw common::WrongUse("--package: an external module finds its image itself; give --firmware DIR");
    }
    const std::string identifier = request_.package.stem();
    const std::string firmware = firmwareName(identifier, "--package: the name");
    const std::string directory = std::string(vset::inset::kPackages) + "/emps/" + identifier;
    const fs::path unpacked = set_->outside(directory);
    unpackPackage(request_.package, unpacked);
    useInformation(unpacked, firmware + ".bin", request_.package);
    job_.image = directory + "/" + firmware + ".bin";
    job_.imageDirectory = directory;
}

void Examination::addFirmware()
{
    const std::string name = fs::canonical(request_.firmware).filename();
    const std::string directory = std::string(vset::inset::kBuiltInFirmware) + "/" + name;
    const std::string image = name + ".bin";
    set_->put(request_.firmware, vset::inset::kBuiltInFirmware, name);
    job_.imageDirectory = directory;
    if (job_.isExternal) {
        job_.image = job_.name;
        if (fs::exists(request_.firmware / "info.json") && fs::exists(request_.firmware / image)) {
            useInformation(request_.firmware, image, request_.firmware);
        }
        job_.checksum = 0;
        return;
    }
    if (useInformation(request_.firmware, image, request_.firmware) == "none") {
        throw common::Failure("the daemon refuses an image in the system image whose ui_use is \"none\": "
                              "write \"select\" or \"force\" (fwmod info --ui-use)");
    }
    job_.image = "/lib/firmware/ext/" + name + "/" + image;
    job_.caller = TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE;
}

// By the name that the first image has: the library may look for it by that.
void Examination::addOther()
{
    constexpr const char* kOther = "/srv/other";
    const std::string name = request_.package.empty()
                                 ? std::string(fs::canonical(request_.firmware).filename())
                                 : firmwareName(request_.package.stem(), "--package: the name");
    const std::string image = name + ".bin";
    const fs::path directory = set_->outside(kOther);
    if (!fs::is_directory(request_.other)) {
        unpackPackage(request_.other, directory);
    } else {
        fs::copy(request_.other, directory, fs::copy_options::recursive);
    }
    job_.otherDirectory = kOther;
    job_.otherImage = job_.isExternal ? job_.name : std::string(kOther) + "/" + image;
    const bool isInformed = fs::exists(directory / "info.json") && fs::exists(directory / image);
    if (!job_.isExternal || isInformed) {
        const InformationReport report = requireInformation(directory, image, request_.other);
        job_.otherChecksum = job_.isExternal ? 0 : report.values.crc;
        job_.otherVersion = report.values.version;
    }
}

// Of a set: the daemon derives both names from what the library says.
void Examination::checkNames(const std::string& identifier) const
{
    if (identifier.empty() || job_.isExternal) {
        return;
    }
    const std::string firmware = firmwareName(identifier, "the identifier");
    if (!request_.package.empty() && request_.package.filename() != identifier + ".img") {
        throw common::Failure("the library's identifier is " + identifier + ", so the daemon asks for " +
                              identifier + ".img: make it with fwmod package --id " + identifier);
    }
    if (!request_.firmware.empty() && fs::canonical(request_.firmware).filename() != firmware) {
        throw common::Failure("the library's identifier is " + identifier + ", so the daemon looks for " +
                              firmware + "/" + firmware + ".bin: rename " + common::shown(request_.firmware) +
                              " and its image");
    }
}

// ---- The examiner ----

constexpr const char* kJobFile = "/srv/job.json"; // in the set

Report Examination::run(const char* mode, std::optional<double> clockRate)
{
    writeJob(job_, set_->outside(kJobFile));
    // Twice: on a loaded PC the services of a set whose clock is fast may time out at their start.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (const std::optional<Report> report = follow(mode, clockRate)) {
            return *report;
        }
    }
    failOnExaminer();
}

void Examination::failOnExaminer() const
{
    std::string text = set_->launcherOutput();
    text.erase(0, text.find_first_not_of('\n')); // each part ends and begins with its own
    text.erase(text.find_last_not_of('\n') + 1);
    throw common::Failure("the library could not be examined:" +
                          (text.empty() ? " vset ended without a word; is there room in memory and in " +
                                              common::shown(set_->set().parent_path()) + "?"
                                        : "\n" + text +
                                              "\nIf this names no cause: a library that ends processes other "
                                              "than its own ends the check, too"));
}

// The report of a set that has come to its end.
std::optional<Report> Examination::follow(const char* mode, std::optional<double> clockRate)
{
    std::optional<Report> report;
    tarnwick::Alone alone;
    alone.clockRate = clockRate;
    alone.limit.reset(); // the examiner has limits of its own
    alone.takeLine = [&](const std::string& text) {
        auto line = readLine(text);
        if (!line) {
            return;
        }
        if (const Progress* const progress = std::get_if<Progress>(&*line)) {
            showProgress_(progress->text, progress->percent);
        } else {
            report = std::get<Report>(*std::move(line));
        }
    };
    const int status = set_->runAlone({examiner_, kJobFile, mode}, alone);
    return status == 0 ? report : std::nullopt;
}

void Examination::take(const Report& report)
{
    for (const auto& [id, details] : report.findings) {
        for (const std::string& detail : details) {
            result_.report.add({id, detail});
        }
    }
    result_.report.notes.insert(result_.report.notes.end(), report.notes.begin(), report.notes.end());
    result_.report.calls += report.calls;
    job_.suspects = report.suspects;
}

// ---- Power cuts ----

std::vector<CutTrial> Examination::takeCuts(const Report& report)
{
    for (const CutTrial& trial : report.cuts) {
        result_.report.calls += trial.calls;
    }
    return report.cuts;
}

// A library may have failed because the set's clock was fast: only what is found at the real pace, too,
// counts.
bool Examination::bringsNews(const Report& report) const
{
    return std::any_of(report.findings.begin(), report.findings.end(),
                       [this](const auto& finding) { return !result_.report.has(finding.first); });
}

Report Examination::confirmTrials()
{
    job_.cuts.clear();
    return run("trials", std::nullopt);
}

void Examination::finishCuts(CutSurvey& survey, const std::vector<CutTrial>& hasty)
{
    survey.addHasty(hasty);
    job_.isCutsOnly = true;
    for (auto open = survey.openAtPace(); !open.empty(); open = survey.openAtPace()) {
        job_.cuts = open;
        survey.addAtPace(takeCuts(run("trials", std::nullopt)));
    }
    for (const auto& [id, detail] : survey.findings()) {
        result_.report.add({id, detail});
    }
    if (!survey.note().empty()) {
        result_.report.notes.push_back(survey.note());
    }
    result_.cuts = survey.cuts();
}

// What the trials have to know of the update that was measured.
void Examination::tellMeasured(const Measured& measured)
{
    job_.versionBefore = measured.versionBefore.value_or("");
    job_.versionAfter = measured.versionAfter.value_or("");
    job_.isRepeatable = measured.isRepeatable;
    job_.isVersionTold = measured.isVersionTold;
    job_.isOfferNewer = measured.isOfferNewer;
    job_.bytes = measured.bytes;
    job_.holding = measured.holding;
    job_.faults = measured.faults;
    job_.measured = measured.duration.value_or(0);
}

void Examination::examine()
{
    showProgress_("questions and an update", 0);
    const Report first = run("measure", std::nullopt);
    const Measured& measured = result_.report.measured = first.measured;
    take(first);
    std::vector<std::string>& notes = result_.report.notes;
    if (!measured.isLoaded) {
        notes.emplace_back("The library could not be loaded, so nothing else was checked.");
        return;
    }
    if (request_.hardware.empty() && result_.report.has(FindingId::QuestionFailed)) {
        notes.emplace_back(
            "No hardware was given, so the library has found none: give --hardware DIR with what "
            "it looks for under /var/lib/hardware, and see what is left.");
    }
    checkNames(measured.identifier);
    if (!job_.hasImage()) {
        notes.emplace_back(job_.isExternal
                               ? "No image was given, so doUpdate was not called: give --firmware DIR."
                               : "No image was given, so doUpdate was not called: give --package IMG, or "
                                 "--firmware DIR for one in the system image.");
    }
    if (!measured.isUpdated) {
        job_.image.clear();
    } else if (!measured.isVersionTold) {
        notes.emplace_back("No power was cut, because the version is not told reliably.");
    }
    tellMeasured(measured);
    std::optional<CutSurvey> survey;
    if (measured.isUpdatable) {
        survey.emplace(measured.writes.value_or(0), request_.everyWrite);
        job_.cuts = survey->chosen();
    }
    showProgress_("refused images and power cuts", 0);
    const Report hasty = run("trials", kHaste);
    const std::vector<CutTrial> cuts = takeCuts(hasty);
    take(bringsNews(hasty) ? confirmTrials() : hasty);
    if (survey) {
        finishCuts(*survey, cuts);
    }
}

// For who wonders why it took so long: nearly always the library's own calls do.
void Examination::explainDuration(double seconds)
{
    constexpr double kLong = 30;
    const Report& report = result_.report;
    const bool isSlow = report.has(FindingId::SlowQuestion) || report.has(FindingId::SlowAllUpdateDone);
    const bool isHanging = report.has(FindingId::Hang);
    const double update = report.measured.duration.value_or(0);
    if (seconds < kLong || (!isSlow && !isHanging && update < 1)) {
        return;
    }
    const std::string reason = isHanging ? "the calls that do not return were waited for"
                               : isSlow
                                   ? "the slow calls were made again and again"
                                   : "an update alone takes " + std::to_string(std::lround(update)) + " s";
    const double processors = std::max(std::thread::hardware_concurrency(), 1U);
    result_.report.notes.push_back(
        "The check took " + std::to_string(std::lround(seconds)) + " s: " + reason +
        (load_ > processors ? ", and the PC had other work when it began" : "") + ".");
}

ExaminationResult Examination::conduct()
{
    const auto begin = std::chrono::steady_clock::now();
    getloadavg(&load_, 1); // later the check itself is in it
    if (!judgeFile()) {
        result_.report.notes.emplace_back("The library could not be loaded, so nothing else was checked.");
        return result_;
    }
    makeSet();
    examine();
    explainDuration(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    return result_;
}
} // namespace

ExaminationResult examineLibrary(const ExaminationRequest& request, const ShowProgress& showProgress)
{
    return Examination(request, showProgress).conduct();
}
} // namespace fwmod
