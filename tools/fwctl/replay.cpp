#include "replay.h"

#include "command.h"
#include "daemon-log.h"
#include "mounts.h"
#include "package-image.h"

#include <fstream>
#include <memory>

namespace
{
struct Finding {
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
    void readFrom(std::unique_ptr<PackageImage> package) { package_ = std::move(package); }

    bool contains(const std::string& name)
    {
        return package_ ? package_->contains(name) : FWUpdateSymbol::file_exists(directory_ + name);
    }
    // False when the package is damaged.
    bool read(const std::string& name, const std::function<void(const std::string&)>& reader)
    {
        if (package_)
            return package_->read(name, reader);
        reader(directory_ + name);
        return true;
    }

private:
    std::string directory_;
    std::unique_ptr<PackageImage> package_;
};

std::string directoryOf(const std::string& path)
{
    return path.substr(0, path.rfind('/') + 1);
}

std::string join(const std::vector<std::string>& texts)
{
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : "; ") + text;
    return joined;
}

// What an accepted information file says less clearly than its maker thinks.
std::string remarksOn(const std::string& path)
{
    constexpr std::pair<const char*, const char*> kDefaults[] = {
        {"version", "0000"}, {"crc", "0"}, {"expected_time", "300 seconds"}, {"ui_use", "none"}};
    std::ifstream file(path);
    Json::Value root;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), file, &root, nullptr) || !root.isObject())
        return "";
    std::string remarks;
    for (const auto& [key, value] : kDefaults) {
        if (!root.isMember(key))
            remarks += std::string("; no \"") + key + "\": " + value + " is taken";
    }
    const Json::Value uiUse = root.get("ui_use", "none");
    if (!uiUse.isString() || (uiUse != "select" && uiUse != "force" && uiUse != "none"))
        remarks += "; \"ui_use\" " + toJson(uiUse) + " counts as none";
    return remarks;
}

class Replay
{
public:
    Replay(FWUpdateSymbol& module, const ImageSource& source, Telling& telling)
        : module_(module), source_(source), telling_(telling), imagePath_(module.getBinaryPath(source.type)),
          informationPath_(module.getInformationPath(source.type)), files_(directoryOf(informationPath_)),
          imageName_(module.firmwareName + ".bin")
    {
    }

    Json::Value run();

private:
    Finding hasName();
    Finding hasPackage();
    Finding hasImage();
    Finding hasInformation();
    Finding informationIsValid();
    Finding screenMayOffer();
    Finding checksumMatches();
    Finding isNewer();
    Finding readMountedPackage(const std::string& reason);

    struct Step {
        const char* test;
        Finding (Replay::*take)();
        bool (*applies)(UPDATE_TYPE type);
    };
    static bool always(UPDATE_TYPE) { return true; }
    static bool toPackages(UPDATE_TYPE type) { return type == UPDATE_TYPE_EMP; }
    static bool toSystemImages(UPDATE_TYPE type) { return type == UPDATE_TYPE_BUILTIN; }
    static const Step kSteps[];

    FWUpdateSymbol& module_;
    const ImageSource& source_;
    Telling& telling_;
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
        if (!passed || !step.applies(source_.type))
            continue;
        const Finding finding = (this->*step.take)();
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

Finding Replay::hasName()
{
    if (module_.firmwareName.empty())
        return {false, "the library gave no identifier", "have the library's getEMPID corrected"};
    return {true, module_.firmwareName, ""};
}

Finding Replay::hasPackage()
{
    if (!module_.isEMP)
        return {false, "the identifier " + module_.EMPName + " is refused",
                "have the library's getEMPID answer letters and digits with a lower-case \"emp\""};
    if (!module_.getIMGExists())
        return {false, module_.empImagePath + " is not there",
                "nothing to do when no update is published; otherwise see whether the download failed"};
    try {
        files_.readFrom(std::make_unique<PackageImage>(module_.empImagePath));
        return {true, module_.empImagePath, ""};
    } catch (const common::Failure& error) {
        return readMountedPackage(error.what());
    }
}

// The kernel may know file systems that we cannot read, and the mount service may read files that we may not.
Finding Replay::readMountedPackage(const std::string& reason)
{
    const std::string directory = directoryOf(informationPath_);
    const std::string detail = module_.empImagePath + " " + reason;
    if (isMountPoint(directory.substr(0, directory.size() - 1)))
        return {true, detail + "; what is mounted was read instead", ""};
    return {false, detail, "remove the file, and have the package downloaded again (restart the set)"};
}

Finding Replay::hasImage()
{
    if (!files_.contains(imageName_))
        return {false, imagePath_ + " is not there",
                source_.type == UPDATE_TYPE_EMP ? "have the package made again with that file in it"
                                                : "nothing to do unless this source should have one"};
    return {true, imagePath_, ""};
}

Finding Replay::hasInformation()
{
    if (!files_.contains("info.json"))
        return {false, informationPath_ + " is not there", "put an information file beside the image"};
    return {true, informationPath_, ""};
}

Finding Replay::informationIsValid()
{
    takeDaemonMessages();
    bool accepted = false;
    const bool complete =
        files_.read("info.json", [&](const std::string& path) { accepted = module_.loadInformation(path); });
    const std::string messages = join(takeDaemonMessages());
    if (!accepted || !complete)
        return {false, complete ? messages : "the package is damaged",
                "correct the information file (\"fwmod info --check\" tells each value)"};
    hasReadInformation_ = true;
    std::string remarks;
    files_.read("info.json", [&](const std::string& path) { remarks = remarksOn(path); });
    const FWInformation& values = module_.information;
    return {true,
            "version " + values.version + ", crc " + std::to_string(values.crc) + ", " +
                std::to_string(values.expected_time) + " s, ui_use " + values.ui_use + remarks,
            ""};
}

Finding Replay::screenMayOffer()
{
    if (module_.information.ui_use == "none")
        return {false, "ui_use is \"none\": an image of the system must be offered on the screen",
                "set \"ui_use\" to \"select\" or \"force\" in " + informationPath_};
    return {true, "ui_use is \"" + module_.information.ui_use + "\"", ""};
}

Finding Replay::checksumMatches()
{
    unsigned int checksum = 0;
    const bool complete =
        files_.read(imageName_, [&](const std::string& path) { checksum = module_.getBinaryCRC32(path); });
    const std::string found = std::to_string(checksum);
    const std::string expected = std::to_string(module_.information.crc);
    if (!complete)
        return {false, "the package is damaged", "remove it, and have it downloaded again (restart the set)"};
    if (module_.information.crc != checksum)
        return {false, "the image has " + found + ", the information file wants " + expected,
                "copy or download the image again; if it is right, correct \"crc\""};
    return {true, found, ""};
}

Finding Replay::isNewer()
{
    const std::string offered = module_.information.version;
    char emptyContext[] = "";
    int verdict = 0;
    const int result = telling_.call("checkVersion", [&] {
        module_.setContext(source_.caller, emptyContext);
        return module_.checkVersion(offered.c_str(), &verdict);
    });
    if (result != 0)
        return {false,
                "the library cannot compare " + offered + " (it returns " + std::to_string(result) + ")",
                "see whether the hardware answers and the version is one that the library knows"};
    verdict_ = verdict;
    module_.updateType = source_.type;
    module_.needUpdate = (verdict == 1);
    module_.expectedUpdateTime = module_.information.expected_time;
    if (verdict < 1)
        return {false,
                "the library calls " + offered + " not newer (verdict " + std::to_string(verdict) + ")",
                "nothing to do: the module is up to date"};
    if (verdict > 1)
        return {false, "the library answers " + std::to_string(verdict) + ", only 1 makes a module pending",
                "have the library's checkVersion corrected"};
    return {true, "the library calls " + offered + " newer", ""};
}
} // namespace

Json::Value replayCheck(FWUpdateSymbol& module, const ImageSource& source, Telling& telling)
{
    return Replay(module, source, telling).run();
}
