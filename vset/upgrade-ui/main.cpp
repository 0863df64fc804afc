// upgrade-ui: the upgrade UI of a virtual set, com.olvessa.tv.firmware.update.
//
// It speaks to the daemon as the real one does, through two settings keys only, and to a person through the
// screen of the set. What it shows goes to the log as well, so that a story can be read afterwards.

#include <cstdio>
#include <cstdlib>
#include <gio/gio.h>
#include <json/json.h>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/daemon/places.h"
#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "common/terminal/command-line.h"
#include "common/terminal/visible-text.h"
#include "norlog.h"
#include "pralis.h"
#include "vset/platformd/contract.h"
#include "vset/upgrade-ui/offer.h"

namespace
{

using common::places::kProgressKey;
using common::places::kStatusKey;
constexpr int kSystemLog = 2;
constexpr int kInfo = 4;
constexpr int kError = 6;
constexpr guint kRestartClick = 1000; // milliseconds after the end, for one that does everything by itself

struct Options {
    std::vector<std::string> extras;
    std::string behaviour = "interactive";
    unsigned int after = 0;
};

std::map<std::string, std::string> extrasOf(const Options& options)
{
    std::map<std::string, std::string> extras;
    for (const std::string& extra : options.extras) {
        const size_t equals = extra.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw common::WrongUse("--extra: \"" + extra + "\" is not KEY=VALUE");
        }
        extras[extra.substr(0, equals)] = extra.substr(equals + 1);
    }
    return extras;
}

void say(int priority, const std::string& text)
{
    __norlog_print(kSystemLog, priority, "UPGRADE_UI", "%s", text.c_str());
    printf("upgrade-ui: %s\n", common::visible(text).c_str());
    fflush(stdout);
}

class Application
{
public:
    explicit Application(const Options& options)
        : options_(options), offer_(extrasOf(options)), loop_(g_main_loop_new(nullptr, FALSE))
    {
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    void run()
    {
        connect();
        const bool isHeard = pralis_notify_key_changed(kStatusKey, onStatus, this) == 0 &&
                             pralis_notify_key_changed(kProgressKey, onProgress, this) == 0;
        if (!isHeard) {
            throw std::runtime_error("the settings store does not answer: is this a running set?");
        }
        show();
        // "ignore" looks like "interactive" and is left alone; the others click by themselves.
        if (options_.behaviour != "interactive" && options_.behaviour != "ignore") {
            g_timeout_add(options_.after, onOwnClick, this);
        }
        g_main_loop_run(loop_.get());
    }

private:
    void connect()
    {
        bus_ = common::systemBus();
        g_dbus_connection_signal_subscribe(bus_.get(), vset::kPlatformName, vset::kConsoleInterface,
                                           "ScreenInput", vset::kPlatformPath, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onInput, this, nullptr);
    }

    void show()
    {
        say(kInfo, offer_.line());
        draw();
        if (offer_.view() == upgradeUI::View::Closed) {
            g_main_loop_quit(loop_.get());
        }
        const bool isAutomatic = options_.behaviour == "accept" || options_.behaviour == "close" ||
                                 options_.behaviour == "decline";
        if (offer_.view() == upgradeUI::View::Finished && isAutomatic) {
            g_timeout_add(kRestartClick, onRestart, this);
        }
    }

    void draw()
    {
        const std::string json = common::compactJson(offer_.screen());
        // Without a screen the UI still does its part.
        g_dbus_connection_call(bus_.get(), vset::kPlatformName, vset::kPlatformPath, vset::kConsoleInterface,
                               "UpdateScreen", g_variant_new("(s)", json.c_str()), nullptr,
                               G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
        g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
    }

    void click(const std::string& button)
    {
        const int value = offer_.click(button);
        if (value == 0) {
            say(kInfo, "\"" + button + "\" is not possible now" +
                           (offer_.isForced() ? ": this update is required" : ""));
            return;
        }
        say(kInfo, button + " was clicked, status " + std::to_string(value));
        if (pralis_set_int(kStatusKey, value) != 0) {
            say(kError, "the status cannot be written");
        }
        show();
    }

    static gboolean onOwnClick(gpointer self)
    {
        auto* const application = static_cast<Application*>(self);
        application->click(application->options_.behaviour);
        return G_SOURCE_REMOVE;
    }

    static gboolean onRestart(gpointer self)
    {
        static_cast<Application*>(self)->click("close");
        return G_SOURCE_REMOVE;
    }

    static void onInput(GDBusConnection*, const char*, const char*, const char*, const char*,
                        GVariant* parameters, gpointer self)
    {
        const char* button = nullptr;
        g_variant_get(parameters, "(&s)", &button);
        auto* const application = static_cast<Application*>(self);
        if (application->options_.behaviour == "ignore") {
            say(kInfo, std::string(button) + " was clicked and is ignored");
        } else {
            application->click(button);
        }
    }

    static void onStatus(keynode* node, void* self)
    {
        auto* const application = static_cast<Application*>(self);
        if (application->offer_.takeStatus(pralis_keynode_get_int(node))) {
            application->show();
        }
    }

    static void onProgress(keynode* node, void* self)
    {
        auto* const application = static_cast<Application*>(self);
        if (application->offer_.takeProgress(pralis_keynode_get_int(node))) {
            application->draw();
        }
    }

    Options options_;
    upgradeUI::Offer offer_;
    common::GlibPointer<GMainLoop> loop_;
    common::GlibPointer<GDBusConnection> bus_;
};

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine program("upgrade-ui", "The upgrade UI of a virtual set");
    Options options;
    program.texts("--extra", options.extras, "KEY=VALUE of the launch request (repeatable)")
        .called("KEY=VALUE");
    program.text("--behaviour", options.behaviour, "What it does by itself")
        .oneOf({"interactive", "accept", "decline", "close", "ignore"});
    program.number("--after", options.after, common::Range<unsigned int>{0, 3'600'000},
                   "Milliseconds until it does that");
    program.footer("The set starts it when the daemon asks for it. By hand, in a running set:\n"
                   "  upgrade-ui --extra uitype=select --extra timeinfo=6");
    program.onRun([&] { Application(options).run(); });
    return program.main(argc, argv);
}
