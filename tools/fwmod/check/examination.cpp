#include "tools/fwmod/check/examination.h"

#include "src/src/fw-update-symbol.h"
#include "tools/fwmod/check/cut-survey.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/control-library.h"
#include "tools/fwmod/images/identifier.h"
#include "tools/fwmod/images/information.h"
#include "tools/fwmod/images/inspection.h"
#include "tools/fwmod/interruption.h"
#include "tools/fwmod/programs.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>
#include <tarnwick/control.h>
#include <unistd.h>

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
constexpr uid_t kUpdateUser = 901; // of a set that root runs
constexpr gid_t kSystemGroup = 900;
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

void copyInto(const fs::path& from, const fs::path& to)
{
    std::error_code error;
    fs::create_directories(to.parent_path(), error);
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing, error);
    if (error)
        throw common::Failure("cannot copy " + from.string() + " into the set: " + error.message());
}

void giveToDaemon(const fs::path& directory)
{
    if (geteuid() != 0)
        return; // a set without root has one user
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
        if (lchown(entry.path().c_str(), kUpdateUser, kSystemGroup) != 0)
            throw common::Failure("cannot give " + entry.path().string() + " to the daemon's user");
    }
}

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
    std::string useInformation(const fs::path& directory, const std::string& image, const fs::path& origin);
    void examine();
    bool bringsNews(const Json::Value& report) const;
    Json::Value confirmTrials();
    Json::Value takeCuts(const Json::Value& report);
    void finishCuts(CutSurvey& survey, const Json::Value& hasty);
    Json::Value run(const char* mode, std::optional<double> clockRate);
    std::optional<Json::Value> follow(const std::vector<std::string>& words, const fs::path& errors);
    void take(const Json::Value& report);
    void checkNames(const std::string& identifier) const;
    fs::path inSet(const std::string& path) const { return set_ / "root" / path.substr(1); }

    const InterruptionWatch watch_; // also while the set is removed
    const ExaminationRequest& request_;
    ShowProgress showProgress_;
    fs::path examiner_;
    ScratchDirectory scratch_;
    fs::path set_ = scratch_.path() / "set";
    Json::Value job_;
    ExaminationResult result_;
};

// False when there is nothing to load.
bool Examination::judgeFile()
{
    const std::string name = request_.library.filename();
    if (request_.library.extension() != ".so")
        result_.findings[102].push_back(name + "; the module would be called " +
                                        libraryName(request_.library));
    const std::string problem = whyNotLoadable(request_.library);
    if (!problem.empty())
        result_.findings[101].push_back(problem);
    return problem.empty();
}

void Examination::makeSet()
{
    requireRoomForSet(scratch_.path());
    runProgram({vsetProgram(), "new", "--bare", set_}, "the kit");
    const std::string name = libraryName(request_.library);
    const std::string library = "/prd/usr/fwupdate/controls/" + name + ".so";
    copyInto(request_.library, inSet(library));
    fs::permissions(inSet(library), fs::perms(0755));
    if (!request_.hardware.empty()) {
        copyInto(request_.hardware, inSet("/var/lib/hardware"));
        giveToDaemon(inSet("/var/lib/hardware"));
    }
    job_["name"] = name;
    job_["library"] = library;
    job_["external"] = isExternalName(name);
    job_["expectedTime"] = kUnknownTime;
    job_["caller"] = TARNWICK_CONTROL_CALLER_PACKAGE;
    job_["mangled"] = Json::objectValue;
    for (const EntryPointState& entry : readControlLibrary(request_.library).entryPoints) {
        if (!entry.exported && !entry.mangled.empty())
            job_["mangled"][entry.name] = entry.mangled;
    }
    if (!request_.package.empty())
        addPackage();
    if (!request_.firmware.empty())
        addFirmware();
}

// `origin` is the file or directory that the person has named.
std::string Examination::useInformation(const fs::path& directory, const std::string& image,
                                        const fs::path& origin)
{
    for (const std::string& name : {std::string("info.json"), image}) {
        if (!fs::is_regular_file(directory / name))
            throw common::Failure(name + " is not in " + origin.string() + ", where the daemon looks for it");
    }
    const InformationReport report = checkInformation(directory / "info.json", directory / image);
    if (!report.accepted)
        throw common::Failure("the daemon would refuse the image:\n" +
                              formatReport(origin / "info.json", report));
    result_.expectedTime = report.values.expected_time;
    job_["version"] = report.values.version;
    job_["checksum"] = Json::UInt64(report.values.crc);
    job_["expectedTime"] = report.values.expected_time;
    return report.values.ui_use;
}

void Examination::addPackage()
{
    if (job_["external"].asBool())
        throw common::WrongUse("--package: an external module finds its image itself; give --firmware DIR");
    const std::string identifier = request_.package.stem();
    const std::string firmware = firmwareName(identifier, "--package: the name");
    const std::string directory = "/opt/usr/apps/appbinarymanager/emps/" + identifier;
    unpackPackage(request_.package, inSet(directory));
    useInformation(inSet(directory), firmware + ".bin", request_.package);
    job_["image"] = directory + "/" + firmware + ".bin";
    job_["imageDirectory"] = directory;
}

void Examination::addFirmware()
{
    const std::string name = fs::canonical(request_.firmware).filename();
    const std::string directory = "/usr/lib/firmware/ext/" + name;
    const std::string image = name + ".bin";
    copyInto(request_.firmware, set_ / directory.substr(1));
    job_["imageDirectory"] = directory;
    if (job_["external"].asBool()) {
        job_["image"] = job_["name"];
        if (fs::exists(request_.firmware / "info.json") && fs::exists(request_.firmware / image))
            useInformation(request_.firmware, image, request_.firmware);
        job_["checksum"] = 0;
        return;
    }
    if (useInformation(request_.firmware, image, request_.firmware) == "none")
        throw common::Failure("the daemon refuses an image in the system image whose ui_use is \"none\": "
                              "write \"select\" or \"force\" (fwmod info --ui-use)");
    job_["image"] = "/lib/firmware/ext/" + name + "/" + image;
    job_["caller"] = TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE;
}

// Of a set: the daemon derives both names from what the library says.
void Examination::checkNames(const std::string& identifier) const
{
    if (identifier.empty() || job_["external"].asBool())
        return;
    const std::string firmware = firmwareName(identifier, "the identifier");
    if (!request_.package.empty() && request_.package.filename() != identifier + ".img")
        throw common::Failure("the library's identifier is " + identifier + ", so the daemon asks for " +
                              identifier + ".img: make it with fwmod package --id " + identifier);
    if (!request_.firmware.empty() && fs::canonical(request_.firmware).filename() != firmware)
        throw common::Failure("the library's identifier is " + identifier + ", so the daemon looks for " +
                              firmware + "/" + firmware + ".bin: rename " + request_.firmware.string() +
                              " and its image");
}

// ---- The examiner ----

[[noreturn]] void failWith(const fs::path& errors)
{
    std::ifstream in(errors);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    throw common::Failure("the library could not be examined: " +
                          (text.empty() ? "vset ended without a word; is there room in memory and in " +
                                              errors.parent_path().string() + "?"
                                        : "\n" + text));
}

Json::Value Examination::run(const char* mode, std::optional<double> clockRate)
{
    std::ofstream job(inSet("/srv/job.json")); // NewFile would take the interruptions for itself
    job << job_;
    job.close();
    if (!job)
        throw common::Failure("cannot write " + inSet("/srv/job.json").string() + ": is the disk full?");
    std::vector<std::string> words = {vsetProgram(), "run", set_};
    if (clockRate)
        words.push_back("--clock-rate=" + std::to_string(*clockRate));
    words.insert(words.end(), {"--", examiner_, "/srv/job.json", mode});

    const fs::path errors = scratch_.path() / "errors";
    // Twice: on a loaded PC the services of a set whose clock is fast may time out at their start.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (const std::optional<Json::Value> report = follow(words, errors))
            return *report;
    }
    failWith(errors);
}

// The report of a set that has come to its end.
std::optional<Json::Value> Examination::follow(const std::vector<std::string>& words, const fs::path& errors)
{
    RunningProgram program(words, errors);
    Json::Value report;
    while (const std::optional<std::string> line = program.readLine()) {
        Json::Value value;
        const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
        if (!reader->parse(line->data(), line->data() + line->size(), &value, nullptr) || !value.isObject())
            continue;
        if (value.isMember("progress"))
            showProgress_(value["progress"]["text"].asString(), value["progress"]["percent"].asUInt());
        else
            report = value;
    }
    if (!program.hasSucceeded() || !report.isMember("findings"))
        return std::nullopt;
    return report;
}

void Examination::take(const Json::Value& report)
{
    for (const Json::Value& finding : report["findings"]) {
        std::vector<std::string>& details = result_.findings[finding["number"].asUInt()];
        for (const Json::Value& detail : finding["details"]) {
            if (std::find(details.begin(), details.end(), detail.asString()) == details.end())
                details.push_back(detail.asString());
        }
    }
    for (const Json::Value& note : report["notes"])
        result_.notes.push_back(note.asString());
    for (const std::string& key : report["measured"].getMemberNames())
        result_.measured[key] = report["measured"][key];
    result_.calls += report["calls"].asUInt();
    job_["suspects"] = report["suspects"];
}

// ---- Power cuts ----

Json::Value toJson(const CutSurvey::Writes& writes)
{
    Json::Value list = Json::arrayValue;
    for (const unsigned int write : writes)
        list.append(write);
    return list;
}

Json::Value Examination::takeCuts(const Json::Value& report)
{
    const Json::Value& cuts = report["measured"]["cuts"];
    for (const Json::Value& cut : cuts)
        result_.calls += cut["calls"].asUInt();
    return cuts;
}

// A library may have failed because the set's clock was fast: only what is found at the real pace, too,
// counts.
bool Examination::bringsNews(const Json::Value& report) const
{
    const Json::Value& findings = report["findings"];
    return std::any_of(findings.begin(), findings.end(), [this](const Json::Value& finding) {
        return result_.findings.count(finding["number"].asUInt()) == 0;
    });
}

Json::Value Examination::confirmTrials()
{
    job_.removeMember("cuts");
    return run("trials", std::nullopt);
}

void Examination::finishCuts(CutSurvey& survey, const Json::Value& hasty)
{
    survey.addHasty(hasty);
    job_["cutsOnly"] = true;
    for (auto open = survey.openAtPace(); !open.empty(); open = survey.openAtPace()) {
        job_["cuts"] = toJson(open);
        survey.addAtPace(takeCuts(run("trials", std::nullopt)));
    }
    for (const auto& [number, detail] : survey.findings())
        result_.findings[number].push_back(detail);
    if (!survey.note().empty())
        result_.notes.push_back(survey.note());
    result_.cuts = survey.cuts();
}

void Examination::examine()
{
    showProgress_("questions and an update", 0);
    take(run("measure", std::nullopt));
    if (!result_.measured["loaded"].asBool()) {
        result_.notes.emplace_back("The library could not be loaded, so nothing else was checked.");
        return;
    }
    checkNames(result_.measured["identifier"].asString());
    const bool isUpdated = result_.measured["updated"].asBool();
    if (!job_.isMember("image"))
        result_.notes.emplace_back(
            job_["external"].asBool()
                ? "No image was given, so doUpdate was not called: give --firmware DIR."
                : "No image was given, so doUpdate was not called: give --package IMG, or "
                  "--firmware DIR for one in the system image.");
    if (!isUpdated)
        job_.removeMember("image");
    if (isUpdated && !result_.measured["versionTold"].asBool())
        result_.notes.emplace_back("No power was cut, because the version is not told reliably.");
    std::optional<CutSurvey> survey;
    if (result_.measured["updatable"].asBool()) {
        survey.emplace(result_.measured["writes"].asUInt(), request_.everyWrite);
        job_["cuts"] = toJson(survey->chosen());
    }
    for (const char* key :
         {"versionBefore", "versionAfter", "versionTold", "offerNewer", "bytes", "duration"})
        job_[key] = result_.measured[key];
    showProgress_("refused images", 0);
    const Json::Value hasty = run("trials", kHaste);
    const Json::Value cuts = takeCuts(hasty);
    take(bringsNews(hasty) ? confirmTrials() : hasty);
    if (survey)
        finishCuts(*survey, cuts);
}

ExaminationResult Examination::conduct()
{
    if (!judgeFile()) {
        result_.notes.emplace_back("The library could not be loaded, so nothing else was checked.");
        return result_;
    }
    makeSet();
    examine();
    return result_;
}
} // namespace

ExaminationResult examineLibrary(const ExaminationRequest& request, const ShowProgress& showProgress)
{
    return Examination(request, showProgress).conduct();
}
} // namespace fwmod
