#include "vset/platformd/model/set-model.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <system_error>
#include <utility>

#include "common/daemon/places.h"
#include "vset/platformd/files.h"
#include "vset/platformd/guarded.h"
#include "vset/platformd/service-time.h"

namespace vset
{

namespace
{

constexpr const char* kSettingsFile = "/var/lib/platform/settings.json";
constexpr const char* kPropertiesFile = "/var/lib/platform/properties.json";
constexpr const char* kEndingsFile = "/var/lib/platform/power.json";
constexpr const char* kPackagesFile = "/var/lib/platform/packages.json";
constexpr const char* kBootFile = "/var/lib/platform/boots.json";
// What holds until the set's next boot, for a service that is started again after a crash. A boot empties
// /run.
constexpr const char* kThisBootFile = "/run/platform-boot.json";
constexpr const char* kKeptSections[] = {"power", "settings", "flags"};

const Packages::Places kPackagePlaces = {common::places::kFeed, common::places::kPackages,
                                         common::places::kManagerMarker, kPackagesFile};

struct Section {
    const char* name;
    Json::Value (*snapshot)(const SetModel&);
};

constexpr Section kSections[] = {
    {"power", [](const SetModel& set) { return set.power.snapshotOfState(); }},
    {"locks", [](const SetModel& set) { return set.power.snapshotOfLocks(); }},
    {"reboots", [](const SetModel& set) { return set.power.snapshotOfEndings(); }},
    {"settings", [](const SetModel& set) { return set.settings.snapshot(); }},
    {"properties", [](const SetModel& set) { return set.properties.snapshot(); }},
    {"flags", [](const SetModel& set) { return set.flags.snapshot(); }},
    {"launches", [](const SetModel& set) { return set.launches.snapshot(); }},
    {"packages", [](const SetModel& set) { return set.packages.snapshot(); }},
    {"watchdog", [](const SetModel& set) { return set.watchdog.snapshot(); }},
    {"mounts", [](const SetModel& set) { return set.mounts.snapshot(); }},
    {"subscribers", [](const SetModel& set) { return set.subscribers.snapshot(); }},
    {"faults", [](const SetModel& set) { return set.faults.snapshot(); }},
};

Json::Value countBoot(bool isPowerCycled)
{
    const Json::Value kept = loadJson(kBootFile);
    Json::Value boot;
    boot["count"] = kept["count"].isUInt() ? kept["count"].asUInt() + 1 : 1U;
    try {
        saveJson(kBootFile, boot, Keeping::kUntilPowerOff); // a boot waits for no disk
    } catch (const std::system_error& error) {
        fprintf(stderr, "platformd: the boots cannot be counted: %s\n", error.what());
    }
    boot["time_ms"] = Json::Int64(wallMilliseconds());
    boot["power_cycle"] = isPowerCycled;
    return boot;
}

} // namespace

SetModel::SetModel(GDBusConnection* bus, bool isPowerCycled)
    : clients(bus), settings(kSettingsFile), properties(kPropertiesFile), power(kEndingsFile, isPowerCycled),
      packages(kPackagePlaces)
{
    resumeBoot(isPowerCycled);
    connectSections();
    connectClients();
}

SetModel::~SetModel()
{
    if (idle_ != 0) {
        g_source_remove(idle_);
    }
}

void SetModel::connectSections()
{
    const std::pair<Event<>*, const char*> sections[] = {
        {&power.changedState, "power"},        {&power.changedLocks, "locks"},
        {&power.changedEndings, "reboots"},    {&settings.changed, "settings"},
        {&properties.changed, "properties"},   {&flags.changed, "flags"},
        {&launches.changed, "launches"},       {&packages.changed, "packages"},
        {&watchdog.changed, "watchdog"},       {&mounts.changed, "mounts"},
        {&subscribers.changed, "subscribers"}, {&faults.changed, "faults"},
    };
    for (const auto& [event, name] : sections) {
        event->connect([this, section = name] { mark(section); });
    }
}

void SetModel::resumeBoot(bool isPowerCycled)
{
    const Json::Value kept = loadJson(kThisBootFile);
    settings.restore(kept["settings"]);
    flags.restore(kept["flags"]);
    power.restoreState(kept["power"]);
    boot_ = kept["boot"].isObject() ? kept["boot"] : countBoot(isPowerCycled);
    keepBoot({std::begin(kKeptSections), std::end(kKeptSections)});
}

void SetModel::keepBoot(const std::set<std::string>& news) const
{
    const bool isNews = std::any_of(std::begin(kKeptSections), std::end(kKeptSections),
                                    [&](const char* section) { return news.count(section) > 0; });
    if (!isNews) {
        return;
    }
    Json::Value json;
    json["boot"] = boot_;
    json["power"] = power.snapshotOfState();
    json["settings"] = settings.snapshot();
    json["flags"] = flags.kept();
    try {
        saveJson(kThisBootFile, json, Keeping::kUntilPowerOff);
    } catch (const std::system_error& error) {
        fprintf(stderr, "platformd: the state of this boot cannot be kept: %s\n", error.what());
    }
}

// What a program holds of the platform ends with it.
void SetModel::connectClients()
{
    clients.gone.connect([this](const std::string& name) {
        power.releaseAllOf(name);
        watchdog.drop(name);
        launches.destroyAllOf(name);
        subscribers.removeAllOf(name);
    });
}

void SetModel::mark(const char* section)
{
    news_.insert(section);
    if (idle_ == 0) {
        idle_ = g_idle_add_full(G_PRIORITY_DEFAULT, onIdle, this, nullptr);
    }
}

gboolean SetModel::onIdle(gpointer self)
{
    auto* const model = static_cast<SetModel*>(self);
    model->idle_ = 0;
    const std::set<std::string> news = std::exchange(model->news_, {});
    guarded("news of the set", [&] {
        model->keepBoot(news);
        model->changed.tell({news.begin(), news.end()});
    });
    return G_SOURCE_REMOVE;
}

Json::Value SetModel::snapshotOf(const std::string& section) const
{
    for (const Section& known : kSections) {
        if (section == known.name) {
            return known.snapshot(*this);
        }
    }
    return Json::nullValue;
}

Json::Value SetModel::snapshot() const
{
    Json::Value json;
    json["boot"] = boot_;
    json["time_ms"] = Json::Int64(wallMilliseconds());
    json["monotonic_ms"] = Json::Int64(monotonicMilliseconds());
    for (const Section& section : kSections) {
        json[section.name] = section.snapshot(*this);
    }
    return json;
}

} // namespace vset
