#include "tools/fwctl/modules/examination.h"

#include <algorithm>
#include <boost/filesystem.hpp>
#include <optional>

#include "src/src/fw-update-symbol.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/library-calls.h"
#include "tools/fwctl/modules/mounts.h"
#include "tools/fwctl/modules/replay.h"
#include "tools/fwctl/privileges.h"

namespace fwctl
{

const ImageSource kImageSources[4] = {
    {"system", "system image", FW_CALLER_BUILTIN, UPDATE_TYPE_BUILTIN, true},
    {"package", "package", FW_CALLER_EMP, UPDATE_TYPE_EMP, true},
    {"usb", "USB stick", FW_CALLER_USB, UPDATE_TYPE_USB, false},
    {"sandbox", "sandbox area", FW_CALLER_SBOX, UPDATE_TYPE_SBOX, false},
};

namespace
{
constexpr std::pair<const char*, bool> kControlDirectories[] = {{"/prd/usr/fwupdate/controls/", false},
                                                                {"/usr/fwupdate/controls/", true}};

Json::Value asArray(const std::vector<std::string>& texts)
{
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) {
        array.append(text);
    }
    return array;
}

const char* kindOf(const FWUpdateSymbol& module, bool isBound)
{
    if (!isBound) {
        return "unusable";
    }
    return module.isEMP ? "package" : "external";
}

Json::Value installedVersion(FWUpdateSymbol& module)
{
    if (!module.functions.setContext || !module.functions.getActiveVersion) {
        return {};
    }
    FWUpdateSymbol::TextBuffer version = {};
    const int result = module.getActiveVersion(version);
    return result == 0 ? Json::Value(version) : Json::Value();
}

void tellNames(const FWUpdateSymbol& module, Telling& telling)
{
    if (module.EMPName.empty()) {
        return;
    }
    telling.put("identifier", module.EMPName);
    telling.put("firmware_name", module.firmwareName);
    telling.put("package", module.empImagePath);
}

// The sources that the daemon does not look at are told only when there is something.
bool isWorthTelling(FWUpdateSymbol& module, const ImageSource& source)
{
    return source.checkedByDaemon || FWUpdateSymbol::file_exists(module.getBinaryPath(source.type));
}

void tellPending(const FWUpdateSymbol& module, Telling& telling)
{
    telling.put("pending", module.getNeedUpdate());
    if (!module.getNeedUpdate()) {
        return;
    }
    telling.put("pending_source", module.getUpdateType() == UPDATE_TYPE_BUILTIN ? "system" : "package");
    telling.put("ui_use", module.information.ui_use);
    telling.put("expected_time", module.getExpectedUpdateTime());
}

// In the daemon's order: the second check starts from what the first has left in the module.
void tellSources(FWUpdateSymbol& module, const std::string& mountProblem, Telling& telling)
{
    Json::Value sources(Json::arrayValue);
    const auto reached = [&](unsigned percent) { telling.reach(percent); };
    for (const ImageSource& source : kImageSources) {
        if (!source.checkedByDaemon) {
            continue;
        }
        sources.append(replayCheck(module, source, mountProblem, reached));
        telling.put("sources", sources);
    }
    tellPending(module, telling);
    for (const ImageSource& source : kImageSources) {
        if (source.checkedByDaemon || !isWorthTelling(module, source)) {
            continue;
        }
        sources.append(replayCheck(module, source, mountProblem, reached));
        telling.put("sources", sources);
    }
}

FWUpdateSymbol& loadInChild(const ControlLibrary& library, Telling& telling, bool& isBound)
{
    auto& module = *new FWUpdateSymbol(
        library.name, library.usr); // never unloaded: a library is not asked to tear itself down
    isBound = telling.call("loading", library.name, [&] { return module.loadSymbol(library.name); }) == 0;
    watchCalls(module, telling);
    return module;
}

// With the rights that it has in the daemon, and no more.
void examineInChild(const ControlLibrary& library, std::optional<uid_t> updater, Telling& telling)
{
    takeDaemonMessages();
    std::string mountProblem;
    if (updater) {
        becomeUser(*updater);
        mountProblem = problemOfOwnMountDirectory();
    }
    bool isBound = false;
    FWUpdateSymbol& module = loadInChild(library, telling, isBound);
    telling.put("load_messages", asArray(takeDaemonMessages()));
    telling.put("kind", kindOf(module, isBound));
    tellNames(module, telling);
    telling.put("installed", installedVersion(module));
    if (!module.firmwareName.empty() && module.functions.checkVersion) {
        tellSources(module, mountProblem, telling);
    }
}

void scan(const char* directory, bool usr, std::vector<ControlLibrary>& found)
{
    boost::system::error_code error;
    boost::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != boost::filesystem::directory_iterator(); entry.increment(error)) {
        if (entry->path().extension().string() == ".so") {
            found.push_back({entry->path().stem().string(), directory, usr});
        }
    }
}
} // namespace

const ImageSource* findImageSource(const std::string& name)
{
    for (const ImageSource& source : kImageSources) {
        if (name == source.name) {
            return &source;
        }
    }
    return nullptr;
}

std::vector<ControlLibrary> findControlLibraries()
{
    std::vector<ControlLibrary> found;
    for (const auto& [directory, usr] : kControlDirectories) {
        scan(directory, usr, found);
    }
    std::stable_sort(found.begin(), found.end(), [](const ControlLibrary& one, const ControlLibrary& other) {
        return one.name < other.name;
    });
    return found;
}

std::vector<ControlLibrary> requireControlLibraries(const std::string& name)
{
    std::vector<ControlLibrary> found = findControlLibraries();
    const auto isOther = [&](const ControlLibrary& library) { return library.name != name; };
    found.erase(std::remove_if(found.begin(), found.end(), isOther), found.end());
    return !found.empty() ? found : throw NoSuchModule(name);
}

namespace
{
// What a library that failed could not tell any more.
void complete(Json::Value& told, const ControlLibrary& library)
{
    told["module"] = library.name;
    told["directory"] = library.directory;
    for (const auto& [name, value] : {std::pair<const char*, Json::Value>{"kind", "unusable"},
                                      {"pending", false},
                                      {"installed", Json::Value()},
                                      {"sources", Json::Value(Json::arrayValue)},
                                      {"load_messages", Json::Value(Json::arrayValue)}}) {
        if (!told.isMember(name)) {
            told[name] = value;
        }
    }
}
} // namespace

std::vector<Json::Value> examineAll(const std::vector<ControlLibrary>& libraries,
                                    const LibrarySpeech::Listener& onLine)
{
    const std::optional<uid_t> updater = likelyUpdater();
    std::vector<Json::Value> told = runIsolatedAll(
        libraries.size(),
        [&](std::size_t index, Telling& telling) { examineInChild(libraries[index], updater, telling); },
        onLine);
    for (std::size_t index = 0; index < libraries.size(); ++index) {
        complete(told[index], libraries[index]);
    }
    return told;
}

Json::Value examine(const ControlLibrary& library, const LibrarySpeech::Listener& onLine)
{
    return examineAll({library}, onLine).front();
}

Json::Value askForVersion(const ControlLibrary& library)
{
    const auto ask = [&](Telling& telling) {
        bool isBound = false;
        becomeLikelyUpdater();
        telling.put("installed", installedVersion(loadInChild(library, telling, isBound)));
    };
    return runIsolated(ask, [](const std::string&) {});
}

void complainAboutLeftBehind(const std::vector<Json::Value>& modules)
{
    for (const Json::Value& module : modules) {
        if (module.isMember(kLeftBehind)) {
            complain(module["module"].asString() + ": " + leftBehindText(module[kLeftBehind].asUInt()));
        }
    }
}

Json::Value failedStep(const Json::Value& source)
{
    for (const Json::Value& step : source["steps"]) {
        if (!step["passed"].asBool()) {
            return step;
        }
    }
    return {};
}

} // namespace fwctl
