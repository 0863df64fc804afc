#include "tools/fwctl/obstacles.h"

#include <algorithm>
#include <sys/stat.h>

#include "common/daemon/places.h"
#include "pralis.h"
#include "pwrctl.h"

namespace fwctl
{

namespace
{
namespace places = common::places;

constexpr long kGraceSeconds = 600; // after the daemon's start, in which a standby ends it instead

bool exists(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0;
}

bool isLink(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

using Obstacles = std::vector<Obstacle>;

void addDaemons(const SetScene& scene, bool isOnScreen, Obstacles& found)
{
    const DaemonState& daemon = scene.daemon;
    if (!daemon.hasBus) {
        found.push_back({"no-bus", problemOfBus().text + ": whether the daemon runs is unknown", ""});
    } else if (daemon.pid == 0) {
        found.push_back({"no-daemon", "the daemon does not run: it checks again at the next boot",
                         "or use \"fwctl update\""});
    } else if (!isOnScreen && daemon.seconds < kGraceSeconds) {
        found.push_back({"just-started",
                         "the daemon started " + std::to_string(daemon.seconds) +
                             " s ago: a standby within its first ten minutes only ends it",
                         "wait " + std::to_string(kGraceSeconds - daemon.seconds) + " s"});
    }
}

void addEvents(const SetScene& scene, Obstacles& found)
{
    if (scene.isMirrored) {
        found.push_back(
            {"mirroring", "the screen is mirrored: changes of power are ignored", "end the mirroring"});
    }
    if (scene.isFactory) {
        found.push_back({"factory-mode", "factory mode: changes of power are ignored and no screen is shown",
                         std::string("remove ") + places::kFactoryMarker + " and restart the set"});
    }
    if (scene.isListALink) {
        found.push_back(
            {"list-link",
             std::string(places::kUpdateList) + " is a symbolic link: the daemon refuses to check",
             "see \"fwctl doctor\""});
    }
}

bool isDaemonWaiting(const SetScene& scene)
{
    return std::any_of(scene.turn.waiting.begin(), scene.turn.waiting.end(),
                       [&](const SemaphoreUser& user) { return user.pid == scene.daemon.pid; });
}

void addTurn(const SetScene& scene, Obstacles& found)
{
    const std::string waits = isDaemonWaiting(scene) ? "a run of the daemon waits for its turn" : "";
    switch (scene.turn.kind) {
    case TurnState::Kind::kFree:
        return;
    case TurnState::Kind::kNobodys:
        found.push_back({"stuck-semaphore",
                         "the update semaphore is taken, but whoever took it has ended: " +
                             (waits.empty() ? "no update can begin" : waits + " for ever"),
                         "see \"fwctl doctor --fix\""});
        return;
    case TurnState::Kind::kForeign:
        found.push_back({"foreign-semaphore", problemOf({true, true}).text, "see \"fwctl doctor\""});
        return;
    case TurnState::Kind::kUnreadable:
        found.push_back({"semaphore-unreadable", "this user may not see whether an update runs",
                         "try as root, or as the daemon's user"});
        return;
    case TurnState::Kind::kHeld:
        found.push_back({"updating",
                         scene.turn.holder + " is updating just now: " +
                             (waits.empty() ? "every other update waits until it has ended" : waits),
                         ""});
        return;
    }
}

// A run of the daemon's that has begun goes on in standby: then nothing stands in the way.
void addPower(const SetScene& scene, bool isOnScreen, Obstacles& found)
{
    if (scene.powerState <= 0 || scene.turn.kind != TurnState::Kind::kFree) {
        return;
    }
    const std::string state = "the set is not on (power state " + std::to_string(scene.powerState) + "): ";
    if (isOnScreen) {
        found.push_back({"not-on", state + "the upgrade screen is not shown", "switch it on"});
    } else {
        found.push_back({"not-on", state + "the daemon updates when it goes from normal to standby",
                         "switch it on, and to standby again"});
    }
}
} // namespace

SetScene lookAtSet()
{
    SetScene scene;
    scene.turn = lookAtTurnPatiently();
    scene.daemon = findDaemon();
    int mirroring = 0;
    scene.isMirrored = pralis_get_int(places::kMirroringKey, &mirroring) == 0 && mirroring == 1;
    scene.isFactory = exists(places::kFactoryMarker);
    scene.isListALink = isLink(places::kUpdateList);
    scene.powerState = scene.daemon.hasBus ? pwrctl_get_state() : -1;
    return scene;
}

std::vector<Obstacle> findObstacles(const SetScene& scene, const Json::Value& module)
{
    Obstacles found;
    if (module["pending"].asBool()) {
        const bool isOnScreen = module["ui_use"] != "none";
        addDaemons(scene, isOnScreen, found);
        addEvents(scene, found);
        addTurn(scene, found);
        addPower(scene, isOnScreen, found);
    }
    return found;
}

std::string sentenceOf(const Obstacle& obstacle)
{
    return obstacle.text + (obstacle.advice.empty() ? "" : "; ") + obstacle.advice;
}

void addObstacles(std::vector<Json::Value>& modules)
{
    const bool isAnyPending = std::any_of(
        modules.begin(), modules.end(), [](const Json::Value& module) { return module["pending"].asBool(); });
    const SetScene scene = isAnyPending ? lookAtSet() : SetScene();
    for (Json::Value& module : modules) {
        Json::Value& sentences = module["obstacles"] = Json::arrayValue;
        for (const Obstacle& obstacle : findObstacles(scene, module)) {
            sentences.append(sentenceOf(obstacle));
        }
    }
}

} // namespace fwctl
