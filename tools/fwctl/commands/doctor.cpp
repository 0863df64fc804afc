// fwctl doctor [--fix] [--json]
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <grp.h>
#include <map>
#include <memory>
#include <optional>
#include <pwd.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "common/daemon/places.h"
#include "common/files/regular-file.h"
#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/library-symbols.h"
#include "tools/fwctl/modules/mounts.h"
#include "tools/fwctl/obstacles.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/privileges.h"
#include "tools/fwctl/set-state.h"
#include "tools/fwctl/turn/turn-holder.h"
#include "tools/fwctl/turn/turn-record.h"
#include "tools/fwctl/turn/update-turn.h"

namespace fwctl
{

namespace
{
namespace places = common::places;

struct Finding {
    std::string id;
    std::string text;
    std::string advice;
    std::function<bool()> fix; // empty: nothing that is safe to do
    bool isNote = false;       // worth knowing, nothing to mend
    bool isFixed = false;
};

// What the checks look at, found out once. The modules come first: see set-state.h.
struct Scene {
    std::vector<Json::Value> modules;
    std::map<std::string, Json::Value> symbols; // of each library that cannot be used, by its path
    std::string mountProblem;                   // see problemOfMountDirectory()
    std::optional<uid_t> updater;               // when this process is one
    SetScene set;

    // Without a bus nobody can tell whether the daemon runs.
    bool isIdle() const
    {
        return set.daemon.hasBus && set.daemon.pid == 0 && set.daemon.starting == 0 &&
               (set.turn.kind == TurnState::Kind::kFree || set.turn.kind == TurnState::Kind::kNobodys);
    }
};

using Findings = std::vector<Finding>;

std::string pathOf(const Json::Value& module)
{
    return module["directory"].asString() + module["module"].asString() + ".so";
}

Json::Value inspectInChild(const std::string& path)
{
    const std::string special = common::problemOfSpecialFile(path);
    if (!special.empty()) { // the loader would wait for the other end of a pipe
        Json::Value told;
        told["error"] = "it " + special;
        return told;
    }
    return runIsolated([&](Telling& telling) {
        becomeLikelyUpdater();
        const LibrarySymbols found = telling.call("loading", "", [&] { return inspectLibrary(path); });
        telling.put("error", found.loaderError);
        for (const auto& [name, texts] :
             {std::pair{"missing", &found.missing}, std::pair{"undefined", &found.undefined}}) {
            Json::Value array(Json::arrayValue);
            for (const std::string& text : *texts) {
                array.append(text);
            }
            telling.put(name, array);
        }
    });
}

Scene look()
{
    Scene scene;
    scene.modules = examineAll(findControlLibraries());
    for (const Json::Value& module : scene.modules) {
        if (module["kind"] == "unusable" && !module.isMember("failure")) {
            scene.symbols[pathOf(module)] = inspectInChild(pathOf(module));
        }
    }
    scene.mountProblem = problemOfMountDirectory();
    scene.updater = likelyUpdater();
    scene.set = lookAtSet();
    return scene;
}

// ---- Directories ----

struct Directory {
    const char* path;
    mode_t mode;
    bool isShared; // belongs to the platform's user and the group that the daemon is in
};
constexpr Directory kDirectories[] = {
    {places::kProductControls, 0755, false},
    {places::kSystemControls, 0755, false},
    {places::kPackages, 02775, true},
    {places::kPackageMounts, 02775, true}, // see checkMountDirectory()
};

bool makeParents(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

bool giveBack(const Directory& directory)
{
    const passwd* const user = getpwnam("platform");
    const group* const group = getgrnam("system");
    const bool isRoot = geteuid() == 0;
    if (directory.isShared && isRoot && user != nullptr && group != nullptr &&
        chown(directory.path, user->pw_uid, group->gr_gid) != 0 && errno != EINVAL) {
        return false; // EINVAL: a user namespace of one user has no other owner to give it to
    }
    return chmod(directory.path, directory.mode) == 0; // whatever the umask
}

bool makeDirectory(const Directory& directory)
{
    return makeParents(directory.path) && mkdir(directory.path, directory.mode) == 0 && giveBack(directory);
}

// Not any PC: a set has some of its directories, or at least its users.
bool isSet()
{
    const bool hasDirectory =
        std::any_of(std::begin(kDirectories), std::end(kDirectories),
                    [](const Directory& directory) { return access(directory.path, F_OK) == 0; });
    return hasDirectory || (getpwnam("platform") != nullptr && getpwnam("fwupdate") != nullptr);
}

void checkMountDirectory(const Scene& scene, Findings& found)
{
    constexpr const Directory& directory = kDirectories[3];
    if (scene.mountProblem.empty() || access(directory.path, F_OK) != 0) {
        return; // a missing one is another finding
    }
    found.push_back({"unwritable-directory",
                     std::string(directory.path) + " cannot be written by the daemon's user (" +
                         scene.mountProblem + "): packages cannot be mounted",
                     "give it back to platform:system, with mode 2775",
                     [] { return giveBack(kDirectories[3]); }});
}

void checkDirectories(const Scene&, Findings& found)
{
    if (!isSet()) {
        found.push_back({"no-set",
                         "this is no set: it has none of its directories",
                         "run fwctl on the set (on a virtual one: vset exec SET -- fwctl doctor)",
                         {}});
        return;
    }
    for (const Directory& directory : kDirectories) {
        struct stat status = {};
        if (stat(directory.path, &status) != 0) {
            found.push_back({"missing-directory", std::string(directory.path) + " is missing", "make it",
                             [&directory] { return makeDirectory(directory); }});
        } else if (!S_ISDIR(status.st_mode)) {
            found.push_back({"no-directory",
                             std::string(directory.path) + " is no directory",
                             "move it away and make the directory",
                             {}});
        }
    }
}

// ---- Leftovers ----

std::string textOfDeadMount(const std::string& directory, const std::string& problem)
{
    return directory + " is mounted, but cannot be read any more (" + problem +
           "): its package can be neither checked nor installed";
}

void checkMounts(const Scene& scene, Findings& found)
{
    for (const std::string& directory : packageMountPoints()) {
        const std::string problem = problemOfMount(directory);
        const auto fix = [directory] { return unmount(directory); };
        if (!problem.empty()) { // of no use to anybody
            found.push_back({"dead-mount", textOfDeadMount(directory, problem), "unmount it", fix});
        } else if (scene.isIdle()) {
            found.push_back({"stale-mount", directory + " is mounted, and nothing runs that would use it",
                             "unmount it", fix});
        }
    }
}

void checkSemaphore(const Scene& scene, Findings& found)
{
    const SemaphoreState state = peekUpdateSemaphore();
    if (state.exists && !state.isReadable) {
        const SemaphoreProblem problem = problemOf(state);
        found.push_back({state.isForeign ? "foreign-semaphore" : "semaphore-unreadable",
                         problem.text,
                         problem.advice,
                         {}});
        return;
    }
    if (state.exists && scene.set.daemon.pid != 0 && state.owner != scene.set.daemon.user &&
        scene.set.daemon.user != 0) {
        found.push_back({"semaphore-owner",
                         "the update semaphore belongs to another user than the daemon's",
                         "restart the set: the daemon makes it anew",
                         {}});
    }
    if (state.value > 1) {
        found.push_back({"raised-semaphore",
                         "the update semaphore stands at " + std::to_string(state.value) +
                             " instead of 1: updates no longer wait for each other",
                         "set it to 1, and find out which program or control library has posted it",
                         [&scene] { return scene.updater && UpdateTurn::lowerRaised(*scene.updater); }});
    }
    if (scene.set.turn.kind == TurnState::Kind::kNobodys) {
        found.push_back(
            {"stuck-semaphore",
             "the update semaphore is taken, but whoever took it has ended: every update waits for "
             "ever",
             "free it (an update was cut off: see \"fwctl list\" for the versions)",
             [&scene] { return scene.updater && UpdateTurn::freeNobodys(*scene.updater); }});
    }
}

void checkTurnRecord(const Scene&, Findings& found)
{
    const std::string problem = problemOfTurnRecord();
    if (!problem.empty()) {
        found.push_back({"foreign-record",
                         problem + ": it can update nothing",
                         "remove it, and find out who made it",
                         {}});
    }
}

void checkUpdateList(const Scene& scene, Findings& found)
{
    struct stat status = {};
    if (lstat(places::kUpdateList, &status) != 0) {
        return;
    }
    const auto removeList = [] { return unlink(places::kUpdateList) == 0; };
    const DaemonState& daemon = scene.set.daemon;
    const bool isOrphan = daemon.hasBus && daemon.pid == 0 && daemon.starting == 0;
    if (S_ISLNK(status.st_mode)) {
        found.push_back(
            {"list-link",
             std::string(places::kUpdateList) + " is a symbolic link: the daemon refuses to check",
             "remove the link, and find out who made it",
             isOrphan ? std::function<bool()>(removeList) : nullptr});
    } else if (isOrphan) {
        found.push_back({"orphaned-list",
                         std::string(places::kUpdateList) + " is there, but the daemon does not run",
                         "remove it", removeList});
    }
}

// ---- Modules ----

std::string listed(const Json::Value& names)
{
    std::string text;
    for (const Json::Value& name : names) {
        text += (text.empty() ? "" : ", ") + name.asString();
    }
    return text;
}

std::string loadReason(const Json::Value& module, const Json::Value& symbols)
{
    if (!symbols["missing"].empty()) {
        return "it lacks " + listed(symbols["missing"]);
    }
    if (!symbols["undefined"].empty()) {
        return "nothing provides " + listed(symbols["undefined"]);
    }
    if (!symbols["error"].asString().empty()) {
        return symbols["error"].asString();
    }
    const Json::Value& messages = module["load_messages"]; // the last one tells what stopped the loading
    return messages.empty() ? "its path cannot be resolved" : messages[messages.size() - 1].asString();
}

void checkLibraries(const Scene& scene, Findings& found)
{
    for (const Json::Value& module : scene.modules) {
        const std::string path = pathOf(module);
        if (module.isMember(kLeftBehind)) {
            found.push_back(
                {"leaves-processes",
                 path + ": " + leftBehindText(module[kLeftBehind].asUInt()),
                 "have its maker end in each call what the call has started: beside the daemon it "
                 "goes on",
                 {}});
        }
        if (module.isMember("failure")) {
            found.push_back({"broken-library",
                             path + ": " + module["failure"].asString(),
                             "move it away and have it corrected: the daemon fails with it",
                             {}});
        } else if (module["kind"] == "unusable") {
            found.push_back({"unusable-library",
                             path + ": " + loadReason(module, scene.symbols.at(path)),
                             common::problemOfSpecialFile(path).empty()
                                 ? "have the library corrected by its maker"
                                 : "remove it, and put the library there",
                             {}});
        }
    }
}

void checkDuplicates(const Scene& scene, Findings& found)
{
    for (const char* const key : {"module", "identifier"}) {
        std::map<std::string, int> counts;
        for (const Json::Value& module : scene.modules) {
            counts[module.get(key, "").asString()] += 1;
        }
        for (const auto& [name, count] : counts) {
            if (count > 1 && !name.empty()) {
                found.push_back({"duplicate-" + std::string(key),
                                 std::to_string(count) + " control libraries have the " + key + " " + name,
                                 "keep one of them: each is checked, and updates the same hardware",
                                 {}});
            }
        }
    }
}

// Whether a source fails in a way that somebody has to mend. That there is none is no fault, nor that it is
// not newer; what is wrong with mounts, other checks tell.
bool isBadImage(const std::string& source, const Json::Value& step)
{
    const std::string test = step["test"].asString();
    const bool isAbsent = step["detail"].asString().find(" is not there") != std::string::npos;
    if (test == "package" || (test == "image" && source != "package")) {
        return !isAbsent;
    }
    return test == "image" || test == "information file" || test == "information" || test == "checksum" ||
           test == "screen";
}

void checkInformation(const Scene& scene, Findings& found)
{
    for (const Json::Value& module : scene.modules) {
        for (const Json::Value& source : module["kind"] == "package" ? module["sources"] : Json::Value()) {
            const Json::Value step = failedStep(source);
            if (isBadImage(source["source"].asString(), step)) {
                found.push_back({"bad-image",
                                 module["module"].asString() + ", " + source["source"].asString() + ": " +
                                     step["detail"].asString(),
                                 step["advice"].asString(),
                                 {}});
            }
        }
    }
}

void checkOrphanedImages(const Scene& scene, Findings& found)
{
    std::set<std::string> known;
    for (const Json::Value& module : scene.modules) {
        known.insert(module.get("package", "").asString());
    }
    std::error_code error;
    for (std::filesystem::directory_iterator entry(places::kPackages, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == ".img" && known.count(entry->path()) == 0) {
            found.push_back({"image-without-module",
                             entry->path().string() + " belongs to no module",
                             "remove it, or install the module's control library",
                             {}});
        }
    }
}

// ---- Surroundings ----

void checkSurroundings(const Scene& scene, Findings& found)
{
    if (scene.modules.empty() && isSet()) {
        found.push_back({"no-module",
                         "there is no control library: the daemon ends at once",
                         "install the set's modules",
                         {}});
    }
    if (!scene.set.daemon.hasBus) {
        found.push_back({"no-bus",
                         problemOfBus().text + ": whether the daemon runs is unknown",
                         problemOfBus().advice,
                         {}});
    }
    if (access(places::kSignatureLibrary, F_OK) != 0) {
        found.push_back({"no-signature-library",
                         "there is no signature library: every USB image counts as signed",
                         "install it, unless the set is meant to be open",
                         {},
                         true});
    }
    if (scene.set.daemon.starting != 0) {
        found.push_back(
            {"daemon-starting",
             "the daemon (process " + std::to_string(scene.set.daemon.starting) +
                 ") has started, but is not on the bus: when that lasts, it hangs in its start",
             "try again in a moment; then move away the control libraries named above, and restart "
             "the set",
             {}});
    } else if (scene.set.daemon.hasBus && scene.set.daemon.pid == 0) {
        found.push_back({"no-daemon",
                         "the daemon does not run: normal when it found nothing to do",
                         "it starts with the set",
                         {},
                         true});
    }
}

// What keeps pending modules from being updated now, in the words of "fwctl why"; what other checks tell in
// their own is left to them.
void checkObstacles(const Scene& scene, Findings& found)
{
    std::set<std::string> told{
        "no-bus", "no-daemon", "stuck-semaphore", "semaphore-unreadable", "foreign-semaphore", "list-link"};
    for (const Json::Value& module : scene.modules) {
        for (const Obstacle& obstacle : findObstacles(scene.set, module)) {
            if (told.insert(obstacle.id).second) {
                found.push_back({obstacle.id, obstacle.text, obstacle.advice, {}, true});
            }
        }
    }
}

constexpr void (*kChecks[])(const Scene&, Findings&) = {
    checkDirectories, checkMountDirectory, checkSemaphore,    checkTurnRecord,
    checkMounts,      checkUpdateList,     checkLibraries,    checkDuplicates,
    checkInformation, checkOrphanedImages, checkSurroundings, checkObstacles,
};

// ---- The command ----

void print(const Finding& finding)
{
    const std::string mark = finding.isFixed ? "✓ " : finding.isNote ? "- " : "✗ ";
    printLine(mark + finding.text);
    if (finding.isFixed) {
        printLine("    mended");
    } else if (!finding.advice.empty()) {
        printLine("    -> " + finding.advice + (finding.fix ? " (--fix does it)" : ""));
    }
}

Json::Value asJson(const Finding& finding)
{
    Json::Value told;
    told["id"] = finding.id;
    told["text"] = finding.text;
    told["advice"] = finding.advice;
    told["note"] = finding.isNote;
    told["fixable"] = static_cast<bool>(finding.fix);
    told["fixed"] = finding.isFixed;
    return told;
}

void mend(Findings& found)
{
    forwardDaemonLog();
    for (Finding& finding : found) {
        errno = 0;
        finding.isFixed = finding.fix && finding.fix();
        if (finding.fix && !finding.isFixed) {
            complain("cannot mend \"" + finding.text + "\"" +
                     (errno != 0 ? std::string(": ") + std::strerror(errno) : "") +
                     (geteuid() != 0 ? ": try as root" : ""));
        }
    }
}

int doctor(bool fix, bool json)
{
    Findings found;
    const Scene scene = look();
    for (const auto check : kChecks) {
        check(scene, found);
    }
    if (fix) {
        mend(found);
    }
    ExitStatus status = kDone;
    Json::Value all(Json::arrayValue);
    for (const Finding& finding : found) {
        status = finding.isNote || finding.isFixed ? status : kFindings;
        all.append(asJson(finding));
        if (!json) {
            print(finding);
        }
    }
    if (json) {
        std::printf("%s\n", common::compactJson(all).c_str());
    } else if (status == kDone) {
        std::printf(scene.modules.size() == 1 ? "%zu module, nothing to be mended\n"
                                              : "%zu modules, nothing to be mended\n",
                    scene.modules.size());
    }
    return status;
}
} // namespace

void defineDoctor(common::CommandLine& command)
{
    struct Options {
        bool fix = false;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    command.flag(
        "--fix", options->fix,
        "Mend what is safe: unmount what nobody uses or can read, give back a turn to update that nobody\n"
        "has, set a semaphore above 1 to 1, remove a list without a daemon, make missing directories");
    command.flag("--json", options->json, "For a program: one JSON array");
    command.footer("Without --fix it changes nothing. "
                   "Exit status: 0 nothing found, or all of it mended; 5 something is left.\n"
                   "Examples:\n"
                   "  fwctl doctor\n"
                   "  fwctl doctor --fix");
    command.onRun([options] { return doctor(options->fix, options->json); });
}

} // namespace fwctl
