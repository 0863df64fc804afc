#include "tools/fwctl/modules/replay.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "common/daemon/limits.h"
#include "common/daemon/places.h"
#include "common/files/memory-file.h"
#include "common/files/package-image.h"
#include "common/files/regular-file.h"
#include "common/joined.h"
#include "common/json-text.h"
#include "src/src/fw-update-checksum.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/mounts.h"

namespace fwctl
{

namespace
{
struct StepFinding {
    bool passed;
    std::string detail;
    std::string advice; // what to do, when it did not pass
};

// Where the two files of a source are read: in the directory that the daemon reads, or in a package image
// that is not mounted there.
class SourceFiles
{
public:
    explicit SourceFiles(std::string directory) : directory_(std::move(directory)) {}
    void readFrom(std::unique_ptr<common::PackageImage> package) { package_ = std::move(package); }

    bool contains(const std::string& name)
    {
        return package_ ? package_->contains(name) : FWUpdateSymbol::file_exists(directory_ + name);
    }
    // Why the daemon could not read the file, though something is there; see common::problemOfSpecialFile().
    std::string problemOf(const std::string& name)
    {
        return package_ ? package_->problemOf(name) : common::problemOfSpecialFile(directory_ + name);
    }
    // Has `reader` read a small file from a path. False when the package is damaged.
    bool read(const std::string& name, const std::function<void(const std::string&)>& reader)
    {
        if (!package_) {
            reader(directory_ + name);
            return true;
        }
        const common::MemoryFile copy;
        const bool isComplete = package_->read(
            name, [&](const char* bytes, std::size_t count) { return copy.append(bytes, count); });
        reader(copy.path());
        return isComplete;
    }
    // The daemon's checksum of the file, of whose reading `reached` hears. False when the package is damaged.
    bool takeChecksum(FWUpdateSymbol& module, const std::string& name, const Reached& reached,
                      unsigned int& checksum)
    {
        const common::RegularFile file(package_ ? "" : directory_ + name);
        if (!package_ && file.descriptor() < 0) {
            checksum = module.getBinaryCRC32(directory_ + name); // which says why
            return true;
        }
        checksum = 0;
        std::uint64_t done = 0;
        const std::uint64_t size = package_ ? package_->sizeOf(name) : sizeOf(file);
        const auto take = [&](const char* bytes, std::size_t count) {
            checksum = extendChecksum(checksum, reinterpret_cast<const unsigned char*>(bytes), count);
            done += count;
            reached(size > 0 ? static_cast<unsigned>(std::min(done, size) * 100 / size) : 0);
            return true;
        };
        return package_ ? package_->read(name, take) : readAll(file, take);
    }

private:
    static std::uint64_t sizeOf(const common::RegularFile& file)
    {
        struct stat status = {};
        fstat(file.descriptor(), &status);
        return static_cast<std::uint64_t>(status.st_size);
    }
    // In the daemon's pieces, and as it does up to what cannot be read.
    static bool readAll(const common::RegularFile& file, const common::PackageImage::Taker& take)
    {
        std::array<char, 32768> chunk{};
        for (ssize_t count = 0; (count = ::read(file.descriptor(), chunk.data(), chunk.size())) > 0;) {
            take(chunk.data(), static_cast<std::size_t>(count));
        }
        return true;
    }

    std::string directory_;
    std::unique_ptr<common::PackageImage> package_;
};

std::string directoryOf(const std::string& path)
{
    return path.substr(0, path.rfind('/') + 1);
}

// A file of a package is read under a name that tells nobody anything.
std::string withPath(std::string text, const std::string& readAs, const std::string& path)
{
    const std::size_t place = text.find(readAs);
    return !readAs.empty() && place != std::string::npos ? text.replace(place, readAs.size(), path) : text;
}

// What an accepted information file says less clearly than its maker thinks.
std::string remarksOn(const std::string& path)
{
    constexpr std::pair<const char*, const char*> kDefaults[] = {
        {"version", "0000"}, {"crc", "0"}, {"expected_time", "300 seconds"}, {"ui_use", "none"}};
    std::string ignored;
    const auto text = common::readRegularFile(path, common::kMostInformation, ignored);
    const std::optional<Json::Value> parsed = common::parseJsonObject(text.value_or(""));
    if (!parsed) {
        return "";
    }
    const Json::Value& root = *parsed;
    std::string remarks;
    for (const auto& [key, value] : kDefaults) {
        if (!root.isMember(key)) {
            remarks += std::string("; no \"") + key + "\": " + value + " is taken";
        }
    }
    const Json::Value uiUse = root.get("ui_use", "none");
    if (!uiUse.isString() || (uiUse != "select" && uiUse != "force" && uiUse != "none")) {
        remarks += "; \"ui_use\" " + common::compactJson(uiUse) + " counts as none";
    }
    return remarks;
}

// Which value it is that the daemon's code cannot take, as its message speaks of the checksum for each; empty
// when it is none.
std::string faultOf(const std::string& path)
{
    std::string why;
    const std::optional<std::string> text = common::readRegularFile(path, common::kMostInformation, why);
    if (!text) {
        return "it " + why;
    }
    const std::optional<Json::Value> root = common::parseJson(*text, &why);
    if (!root) {
        return "it is no JSON (" + why + ")";
    }
    if (!root->isObject() && !root->isNull()) {
        return "it is no JSON object";
    }
    if (!root->get("version", "").isConvertibleTo(Json::stringValue)) {
        return "\"version\" is no text";
    }
    for (const char* const key : {"crc", "expected_time"}) {
        if (!root->get(key, 0).isConvertibleTo(Json::uintValue)) {
            return std::string("\"") + key + "\" is no whole number from 0 to 4294967295";
        }
    }
    return "";
}

class Replay
{
public:
    Replay(FWUpdateSymbol& module, const ImageSource& source, std::string mountProblem, Reached reached)
        : module_(module), source_(source), mountProblem_(std::move(mountProblem)),
          reached_(std::move(reached)), imagePath_(module.getBinaryPath(source.type)),
          informationPath_(module.getInformationPath(source.type)), files_(directoryOf(informationPath_)),
          imageName_(module.firmwareName + ".bin")
    {
    }

    Json::Value run();
    std::string findSpecialFile();

private:
    std::string remedyOf(const std::string& path) const;
    StepFinding notAFile(const std::string& path, const std::string& problem) const;
    StepFinding hasName();
    StepFinding hasPackage();
    StepFinding canBeMounted();
    StepFinding hasImage();
    StepFinding hasInformation();
    StepFinding informationIsValid();
    StepFinding screenMayOffer();
    StepFinding checksumMatches();
    StepFinding isNewer();
    StepFinding readMountedPackage(const std::string& reason);

    struct Step {
        const char* test;
        StepFinding (Replay::*take)();
        bool (*applies)(UPDATE_TYPE type);
    };
    static bool always(UPDATE_TYPE) { return true; }
    static bool toPackages(UPDATE_TYPE type) { return type == UPDATE_TYPE_EMP; }
    static bool toSystemImages(UPDATE_TYPE type) { return type == UPDATE_TYPE_BUILTIN; }
    static const Step kSteps[];

    FWUpdateSymbol& module_;
    const ImageSource& source_;
    std::string mountProblem_;
    Reached reached_;
    std::string imagePath_;
    std::string informationPath_;
    SourceFiles files_;
    std::string imageName_;
    bool hasReadInformation_ = false;
    Json::Value verdict_;
};

const Replay::Step Replay::kSteps[] = {
    {"firmware name", &Replay::hasName, Replay::always},
    {"package", &Replay::hasPackage, Replay::toPackages},
    {"mount", &Replay::canBeMounted, Replay::toPackages},
    {"image", &Replay::hasImage, Replay::always},
    {"information file", &Replay::hasInformation, Replay::always},
    {"information", &Replay::informationIsValid, Replay::always},
    {"screen", &Replay::screenMayOffer, Replay::toSystemImages},
    {"checksum", &Replay::checksumMatches, Replay::always},
    {"version", &Replay::isNewer, Replay::always},
};

Json::Value Replay::run()
{
    Json::Value steps(Json::arrayValue);
    bool passed = true;
    for (const Step& step : kSteps) {
        if (!passed || !step.applies(source_.type)) {
            continue;
        }
        const StepFinding finding = (this->*step.take)();
        passed = finding.passed;
        Json::Value told;
        told["test"] = step.test;
        told["passed"] = finding.passed;
        told["detail"] = finding.detail;
        told["advice"] = finding.advice;
        steps.append(told);
    }
    Json::Value result;
    result["source"] = source_.name;
    result["checked_by_daemon"] = source_.checkedByDaemon;
    result["image"] = imagePath_;
    result["offered"] = hasReadInformation_ ? Json::Value(module_.information.version) : Json::Value();
    result["verdict"] = verdict_;
    result["newer"] = passed && verdict_ == 1;
    result["steps"] = steps;
    return result;
}

std::string Replay::findSpecialFile()
{
    std::string problem =
        source_.type == UPDATE_TYPE_EMP ? common::problemOfSpecialFile(module_.empImagePath) : "";
    if (!problem.empty()) {
        return module_.empImagePath + " " + problem + ": " + remedyOf(module_.empImagePath);
    }
    if (source_.type == UPDATE_TYPE_EMP && (!module_.getIMGExists() || !hasPackage().passed)) {
        return ""; // the daemon's check ends before it opens a file
    }
    problem = files_.problemOf(imageName_);
    if (!problem.empty()) {
        return imagePath_ + " " + problem + ": " + remedyOf(imagePath_);
    }
    problem = files_.problemOf("info.json");
    return problem.empty() ? "" : informationPath_ + " " + problem + ": " + remedyOf(informationPath_);
}

StepFinding Replay::hasName()
{
    if (module_.firmwareName.empty()) {
        return {false, "the library gave no identifier", "have the library's getEMPID corrected"};
    }
    return {true, module_.firmwareName, ""};
}

StepFinding Replay::hasPackage()
{
    if (!module_.isEMP) {
        return {false, "the identifier " + module_.EMPName + " is refused",
                "have the library's getEMPID answer letters and digits with a lower-case \"emp\""};
    }
    if (!module_.getIMGExists()) {
        return {false, module_.empImagePath + " is not there",
                "nothing to do when no update is published; otherwise see whether the download failed"};
    }
    const std::string problem = common::problemOfSpecialFile(module_.empImagePath);
    if (!problem.empty()) {
        return notAFile(module_.empImagePath, problem);
    }
    try {
        files_.readFrom(std::make_unique<common::PackageImage>(module_.empImagePath));
        return {true, module_.empImagePath, ""};
    } catch (const common::NoMemory& error) {
        return {
            false, module_.empImagePath + ": " + error.what(),
            "free memory; if there is enough, the control library has lowered a limit of its process: have it "
            "corrected"};
    } catch (const common::Failure& error) {
        return readMountedPackage(error.what());
    }
}

// The daemon makes the mount point when there is none.
StepFinding Replay::canBeMounted()
{
    const std::string directory = directoryOf(informationPath_);
    const std::string mountPoint = directory.substr(0, directory.size() - 1);
    const std::string problem = problemOfMount(mountPoint);
    if (!problem.empty()) {
        return {false, directory + " is mounted, but cannot be read any more: " + problem,
                "\"fwctl doctor --fix\" unmounts it"};
    }
    struct stat status = {};
    const bool exists = stat(mountPoint.c_str(), &status) == 0;
    if (exists && !S_ISDIR(status.st_mode)) {
        return {false, directory + " is no directory", "remove what stands there"};
    }
    if (!exists && !mountProblem_.empty()) {
        return {false,
                std::string(common::places::kPackageMounts) +
                    "/ cannot be written by the daemon's user: " + mountProblem_,
                "\"fwctl doctor --fix\" gives it back"};
    }
    return {true, directory, ""};
}

// The kernel may know file systems that we cannot read, and the mount service may read files that we may not.
StepFinding Replay::readMountedPackage(const std::string& reason)
{
    const std::string directory = directoryOf(informationPath_);
    const std::string detail = module_.empImagePath + " " + reason;
    if (isMountPoint(directory.substr(0, directory.size() - 1))) {
        return {true, detail + "; what is mounted was read instead", ""};
    }
    return {false, detail, "remove the file, and have the package downloaded again (restart the set)"};
}

// Nothing is opened that is no file: the daemon's code would wait for the other end of a pipe, for ever.
StepFinding Replay::notAFile(const std::string& path, const std::string& problem) const
{
    return {false, path + " " + problem, remedyOf(path) + ": the daemon hangs or fails with it"};
}

// What is in a package cannot be taken out of it.
std::string Replay::remedyOf(const std::string& path) const
{
    const bool isInPackage = source_.type == UPDATE_TYPE_EMP && path != module_.empImagePath;
    return isInPackage ? "have the package made again with a file there"
                       : "remove it, and put the file there";
}

StepFinding Replay::hasImage()
{
    const std::string problem = files_.problemOf(imageName_);
    if (!problem.empty()) {
        return notAFile(imagePath_, problem);
    }
    if (!files_.contains(imageName_)) {
        return {false, imagePath_ + " is not there",
                source_.type == UPDATE_TYPE_EMP ? "have the package made again with that file in it"
                                                : "nothing to do unless this source should have one"};
    }
    return {true, imagePath_, ""};
}

StepFinding Replay::hasInformation()
{
    const std::string problem = files_.problemOf("info.json");
    if (!problem.empty()) {
        return notAFile(informationPath_, problem);
    }
    if (!files_.contains("info.json")) {
        return {false, informationPath_ + " is not there", "put an information file beside the image"};
    }
    return {true, informationPath_, ""};
}

StepFinding Replay::informationIsValid()
{
    takeDaemonMessages();
    bool accepted = false;
    std::string readAs;
    const bool complete = files_.read("info.json", [&](const std::string& path) {
        readAs = path;
        accepted = module_.loadInformation(path);
    });
    const std::string messages =
        withPath(common::joined(takeDaemonMessages(), "; "), readAs, informationPath_);
    if (!complete) {
        return {false, "the package is damaged", "remove it, and have it downloaded again (restart the set)"};
    }
    if (!accepted) {
        std::string fault;
        files_.read("info.json", [&](const std::string& path) { fault = faultOf(path); });
        return {false, messages,
                (fault.empty() ? "" : fault + ": ") +
                    "correct the information file (\"fwmod info --check\" tells each value)"};
    }
    hasReadInformation_ = true;
    std::string remarks;
    files_.read("info.json", [&](const std::string& path) { remarks = remarksOn(path); });
    const FWInformation& values = module_.information;
    return {true,
            "version " + values.version + ", crc " + std::to_string(values.crc) + ", " +
                std::to_string(values.expected_time) + " s, ui_use " + values.ui_use + remarks,
            ""};
}

StepFinding Replay::screenMayOffer()
{
    if (module_.information.ui_use == "none") {
        return {false, "ui_use is \"none\": an image of the system must be offered on the screen",
                "set \"ui_use\" to \"select\" or \"force\" in " + informationPath_};
    }
    return {true, "ui_use is \"" + module_.information.ui_use + "\"", ""};
}

StepFinding Replay::checksumMatches()
{
    unsigned int checksum = 0;
    const bool complete = files_.takeChecksum(module_, imageName_, reached_, checksum);
    const std::string found = std::to_string(checksum);
    const std::string expected = std::to_string(module_.information.crc);
    if (!complete) {
        return {false, "the package is damaged", "remove it, and have it downloaded again (restart the set)"};
    }
    if (module_.information.crc != checksum) {
        return {false, "the image has " + found + ", the information file wants " + expected,
                "copy or download the image again; if it is right, correct \"crc\""};
    }
    return {true, found, ""};
}

StepFinding Replay::isNewer()
{
    const std::string offered = module_.information.version;
    char emptyContext[] = "";
    int verdict = 0;
    module_.setContext(source_.caller, emptyContext);
    const int result = module_.checkVersion(offered.c_str(), &verdict);
    if (result != 0) {
        return {false,
                "the library cannot compare " + offered + " (it returns " + std::to_string(result) + ")",
                "see whether the hardware answers and the version is one that the library knows"};
    }
    verdict_ = verdict;
    module_.updateType = source_.type;
    module_.needUpdate = (verdict == 1);
    module_.expectedUpdateTime = module_.information.expected_time;
    if (verdict < 1) {
        return {false,
                "the library calls " + offered + " not newer (verdict " + std::to_string(verdict) + ")",
                "nothing to do: the module is up to date"};
    }
    if (verdict > 1) {
        return {false, textOfOddVerdict(verdict), "have the library's checkVersion corrected"};
    }
    return {true, "the library calls " + offered + " newer", ""};
}
} // namespace

std::string textOfOddVerdict(int verdict)
{
    return "the library answers " + std::to_string(verdict) + ", only 1 makes a module pending";
}

Json::Value replayCheck(FWUpdateSymbol& module, const ImageSource& source, const std::string& mountProblem,
                        const Reached& reached)
{
    return Replay(module, source, mountProblem, reached).run();
}

std::string findSpecialFile(FWUpdateSymbol& module, const ImageSource& source)
{
    return Replay(module, source, "", {}).findSpecialFile();
}

} // namespace fwctl
