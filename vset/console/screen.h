// The screen of the set: the upgrade UI, started as an application of its own when its launch is accepted.
//
// The application draws by sending what it shows as JSON, and hears what is clicked; this side knows nothing
// of what it is about.
#ifndef VSET_CONSOLE_SCREEN_H
#define VSET_CONSOLE_SCREEN_H

#include <cstdint>
#include <functional>
#include <gio/gio.h>
#include <json/json.h>
#include <optional>
#include <string>

#include "vset/platformd/event.h"
#include "vset/platformd/model/launches.h"

namespace vset
{

// What the next upgrade UI does by itself.
struct UiBehaviour {
    std::string name = "interactive";
    unsigned int after = 0; // milliseconds until its click
};

class Screen
{
public:
    // `click` sends a click to the application of that bus name.
    using Sender = std::function<void(const std::string& application, const std::string& button)>;
    explicit Screen(Sender send) : send_(std::move(send)) {}
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Starts the upgrade UI for a request to it; false when it cannot be started. Requests to others are none
    // of this set's business. One that is running stays, as applications do.
    bool launch(const Launch& request, const UiBehaviour& behaviour);

    // Each gives the text of what is wrong, or nothing.
    std::optional<std::string> update(const std::string& application, int process, const std::string& json);
    std::optional<std::string> click(const std::string& button);
    // A bus connection has ended.
    void drop(const std::string& application);

    // {"shown": false} or what the application shows, with "shown": true.
    const Json::Value& snapshot() const { return shown_; }

    Event<> changed;

private:
    static void onEnd(GObject* process, GAsyncResult* result, gpointer self);
    int processId() const;
    void clear();

    Sender send_;
    GSubprocess* process_ = nullptr;
    std::string application_; // the bus name that draws
    Json::Value shown_ = nothing();

    static Json::Value nothing();
};

inline constexpr const char* kUpgradeUI = "com.olvessa.tv.firmware.update";

// The text of what is wrong with a behaviour, or nothing.
std::optional<std::string> faultOf(const UiBehaviour& behaviour);

} // namespace vset

#endif
