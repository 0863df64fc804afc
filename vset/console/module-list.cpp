#include "vset/console/module-list.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <system_error>
#include <utility>

#include "common/daemon/external-name.h"
#include "common/daemon/places.h"
#include "common/json-text.h"
#include "common/process/this-program.h"
#include "vset/console/program.h"
#include "vset/platformd/files.h"

namespace vset
{

namespace
{

namespace fs = std::filesystem;
namespace places = common::places;

constexpr int64_t kProbeLimit = 3000; // milliseconds of the PC's time
constexpr const char* kControlDirectories[] = {places::kProductControls, places::kSystemControls};

std::vector<std::string> findLibraries()
{
    std::vector<std::string> libraries;
    for (const char* directory : kControlDirectories) {
        std::error_code error;
        for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
             entry.increment(error)) {
            if (entry->path().extension() == ".so") {
                libraries.push_back(entry->path());
            }
        }
    }
    std::sort(libraries.begin(), libraries.end());
    return libraries;
}

Json::Value parseObject(const std::string& text)
{
    return common::parseJsonObject(text).value_or(Json::objectValue);
}

// Null when there is no such file.
Json::Value readInformation(const fs::path& path)
{
    const auto text = readFile(path);
    return text ? parseObject(*text) : Json::nullValue;
}

// The name that images are called by: the identifier without its first "emp".
std::string firmwareNameOf(const std::string& identifier)
{
    const size_t at = identifier.find("emp");
    return at == std::string::npos ? "" : identifier.substr(0, at) + identifier.substr(at + 3);
}

std::set<std::string> namesInList()
{
    std::set<std::string> names;
    std::istringstream file(readFile(places::kUpdateList).value_or(""));
    for (std::string line; std::getline(file, line);) {
        names.insert(line.substr(0, line.find(' ')));
    }
    return names;
}

// What comes from others is passed on when it is of the kind that is expected.
Json::Value textOrNull(const Json::Value& value)
{
    return value.isString() ? value : Json::Value();
}

Json::Value numberOrNull(const Json::Value& value)
{
    return value.isNumeric() ? value : Json::Value();
}

Json::Value toOffer(const char* source, const Json::Value& information)
{
    Json::Value offer;
    offer["source"] = source;
    offer["version"] = textOrNull(information["version"]);
    offer["ui_use"] = information["ui_use"].isString() ? information["ui_use"] : Json::Value("none");
    offer["expected_time"] = numberOrNull(information["expected_time"]);
    return offer;
}

std::string keyOf(const std::string& path)
{
    struct stat status{};
    if (stat(path.c_str(), &status) != 0) {
        return "";
    }
    return std::to_string(status.st_ino) + "/" + std::to_string(status.st_size) + "/" +
           std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

} // namespace

void ModuleList::ask(std::function<void()> done)
{
    if (done) {
        waiting_.push_back(std::move(done));
    }
    if (unanswered_ > 0) {
        return;
    }
    const std::vector<std::string> libraries = findLibraries();
    for (auto module = modules_.begin(); module != modules_.end();) {
        const bool isThere = std::binary_search(libraries.begin(), libraries.end(), module->first);
        module = isThere ? std::next(module) : modules_.erase(module);
    }
    unanswered_ = libraries.size();
    for (const std::string& library : libraries) {
        runProgram({common::directoryOfThisProgram() / "module-probe", library}, kProbeLimit,
                   [this, library](const std::optional<std::string>& output) {
                       take(library, parseObject(output.value_or("")));
                   });
    }
    if (libraries.empty()) {
        finishRound();
    }
}

void ModuleList::take(const std::string& library, const Json::Value& answer)
{
    Json::Value module;
    const fs::path path(library);
    module["name"] = path.stem().string();
    module["directory"] = path.parent_path().string();
    module["external"] = common::isExternalName(path.stem().string());
    module["identifier"] = textOrNull(answer["identifier"]);
    module["installed"] = textOrNull(answer["version"]);
    module["progress"] = numberOrNull(answer["progress"]);
    if (answer.empty()) {
        module["error"] = "its control library crashes, hangs or cannot be loaded";
    } else if (module["installed"].isNull()) {
        module["error"] = "its control library tells no version";
    }
    modules_[library] = module;
    if (--unanswered_ == 0) {
        finishRound();
    }
}

void ModuleList::finishRound()
{
    const std::set<std::string> listed = namesInList();
    Json::Value list = Json::arrayValue;
    for (auto& [library, module] : modules_) {
        module["offers"] = Json::arrayValue;
        addOffers(module);
        module["pending"] = listed.count(module["name"].asString()) > 0;
        list.append(module);
    }
    if (unanswered_ > 0) {
        return; // packages that were not known have to be looked into first
    }
    const bool isNew = list != shown_;
    shown_ = list;
    if (isNew) {
        changed.tell();
    }
    for (const auto& done : std::exchange(waiting_, {})) {
        done();
    }
}

void ModuleList::addOffers(Json::Value& module)
{
    const std::string identifier = module["identifier"].isString() ? module["identifier"].asString() : "";
    const std::string firmware = firmwareNameOf(identifier);
    if (firmware.empty() || firmware.find('/') != std::string::npos) {
        return;
    }
    const Json::Value builtIn = readInformation(fs::path(places::kSystemImages) / firmware / "info.json");
    if (!builtIn.isNull()) {
        module["offers"].append(toOffer("system image", builtIn));
    }
    for (const auto& [source, directory] :
         {std::pair("package", places::kPackages), std::pair("feed", places::kFeed)}) {
        const Json::Value information =
            informationOfPackage((fs::path(directory) / (identifier + ".img")).string());
        if (!information.isNull()) {
            module["offers"].append(toOffer(source, information));
        }
    }
}

// Null when there is no package. One that is new is looked into by a program of its own, and empty until
// then.
Json::Value ModuleList::informationOfPackage(const std::string& path)
{
    const std::string key = keyOf(path);
    if (key.empty()) {
        packages_.erase(path);
        return Json::nullValue;
    }
    Package& package = packages_[path];
    if (package.key == key) {
        return package.information;
    }
    package = {key, Json::objectValue};
    ++unanswered_;
    runProgram({"unsquashfs", "-cat", path, "info.json"}, kProbeLimit,
               [this, path, key](const std::optional<std::string>& output) {
                   const auto known = packages_.find(path);
                   if (known != packages_.end() && known->second.key == key) {
                       known->second.information = parseObject(output.value_or(""));
                   }
                   if (--unanswered_ == 0) {
                       finishRound();
                   }
               });
    return package.information;
}

Json::Value ModuleList::snapshot() const
{
    return shown_;
}

} // namespace vset
