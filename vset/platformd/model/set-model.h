// All that the platform knows of its set, in parts that can be read, changed and listened to.
//
// The bus interfaces, and whoever else shows the set, stand on this. Main thread only.
#ifndef VSET_PLATFORMD_MODEL_SET_MODEL_H
#define VSET_PLATFORMD_MODEL_SET_MODEL_H

#include <gio/gio.h>
#include <json/json.h>
#include <set>
#include <string>
#include <vector>

#include "vset/platformd/bus/clients.h"
#include "vset/platformd/bus/subscribers.h"
#include "vset/platformd/event.h"
#include "vset/platformd/model/faults.h"
#include "vset/platformd/model/flags.h"
#include "vset/platformd/model/launches.h"
#include "vset/platformd/model/mounts.h"
#include "vset/platformd/model/packages.h"
#include "vset/platformd/model/power.h"
#include "vset/platformd/model/properties.h"
#include "vset/platformd/model/settings.h"
#include "vset/platformd/model/watchdog.h"

namespace vset
{

class SetModel
{
public:
    // `bus` must outlive it. Without `isPowerCycled` reboots and power-offs are only recorded.
    SetModel(GDBusConnection* bus, bool isPowerCycled);
    ~SetModel();
    SetModel(const SetModel&) = delete;
    SetModel& operator=(const SetModel&) = delete;

    Clients clients;
    Settings settings;
    Properties properties;
    Power power;
    Flags flags;
    Launches launches;
    Packages packages;
    Watchdog watchdog;
    Mounts mounts;
    Subscribers subscribers;
    Faults faults;

    // One object with a member for each section, and the set's time.
    Json::Value snapshot() const;
    Json::Value snapshotOf(const std::string& section) const;

    // The sections that are new, once for all changes of one turn of the main loop.
    Event<const std::vector<std::string>&> changed;

private:
    void connectSections();
    void connectClients();
    void resumeBoot(bool isPowerCycled);
    void keepBoot(const std::set<std::string>& news) const;
    void mark(const char* section);
    static gboolean onIdle(gpointer self);

    Json::Value boot_; // {"count", "time_ms", "power_cycle"}
    std::set<std::string> news_;
    guint idle_ = 0;
};

} // namespace vset

#endif
