// The console of the set: a page in the browser, and the same for commands on the bus.
//
// It shows the platform's model and what it finds out itself of the daemon, and carries out what a person
// does at the television.
#ifndef VSET_CONSOLE_CONSOLE_H
#define VSET_CONSOLE_CONSOLE_H

#include <array>
#include <functional>
#include <gio/gio.h>
#include <json/json.h>
#include <optional>
#include <set>
#include <string>

#include "vset/clock/clock-file.h"
#include "vset/console/daemon-watch.h"
#include "vset/console/log-tail.h"
#include "vset/console/module-list.h"
#include "vset/console/real-time.h"
#include "vset/console/screen.h"
#include "vset/console/state-way.h"
#include "vset/console/usb-slot.h"
#include "vset/console/web/web-server.h"
#include "vset/platformd/bus/bus-objects.h"
#include "vset/platformd/files.h"
#include "vset/platformd/model/set-model.h"

namespace vset
{

class Console
{
public:
    // `bus` and `set` must outlive it. The page's address is in /run/console.url from then on. Throws
    // std::runtime_error.
    Console(GDBusConnection* bus, SetModel& set);

private:
    // What is wrong with an order, or nothing.
    using Fault = std::optional<std::string>;
    struct Order;

    // ---- Sections of what is shown ----
    Json::Value sections();
    Json::Value sectionOf(const std::string& name) const;
    Json::Value setSection() const;
    Json::Value switchesSection() const;
    static Json::Value feedSection();
    static Json::Value statesSection();
    Json::Value greeting();
    void mark(const std::string& section);
    void push();
    void watch();
    void watchModules();

    // ---- Orders: orders.cpp ----
    static constexpr size_t kOrderCount = 13;
    static const std::array<Order, kOrderCount> kOrders;
    static const Order* findOrder(const std::function<bool(const Order&)>& isMeant);
    static Json::Value orderOf(const std::string& method, GVariant* parameters);
    Fault carryOut(const Json::Value& message);

    // ---- What they do ----
    Fault setFactory(bool isOn);
    Fault setMirroring(bool isOn);
    Fault changeClock(const ClockChange& change);
    Fault setPackageManager(bool isReady);
    Fault setUpgradeUI(const std::string& name, unsigned int after);
    void handle(const std::string& method, const std::string& sender, GVariant* parameters,
                GDBusMethodInvocation* invocation);
    void handleModules(GDBusMethodInvocation* invocation);
    void onLaunch(const Launch& request);
    void followLog();
    void takeLog(const LogRecord& record);

    void loadOptions();
    Fault saveOptions(Keeping keeping = Keeping::kForGood) const;
    void publishUrl() const;

    SetModel& set_;
    BusObject object_;
    UiBehaviour behaviour_;
    bool isFactory_ = false;
    unsigned int port_ = 0;
    Screen screen_;
    UsbSlot usb_;
    ModuleList modules_;
    DaemonWatch daemon_;
    StateWay way_;
    LogTail log_;
    WebServer web_;

    std::set<std::string> news_;
    Json::Value newRecords_ = Json::arrayValue;
    bool isFollowing_ = false;
    Json::Value told_; // sections as they were last told
    RealTimer pushTimer_;
    RealTimer watchTimer_;
    RealTimer moduleTimer_;
    RealTimer logTimer_;
};

} // namespace vset

#endif
