// platformd: the platform services of a virtual set, as an ordinary user on its system bus.
// What it promises to whoever starts it is in contract.h.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <gio/gio.h>
#include <glib-unix.h>
#include <memory>
#include <unistd.h>

#include "common/glib-pointers.h"
#include "common/terminal/command-line.h"
#include "vset/console/console.h"
#include "vset/platformd/bus/control.h"
#include "vset/platformd/bus/services.h"
#include "vset/platformd/contract.h"
#include "vset/platformd/model/set-model.h"

namespace
{

struct Options {
    int readyFd = -1;
    bool isPowerCycled = true;
};

class Service
{
public:
    explicit Service(const Options& options) : options_(options), loop_(g_main_loop_new(nullptr, FALSE)) {}

    int run()
    {
        bus_ = common::systemBus();
        g_dbus_connection_set_exit_on_close(bus_.get(), FALSE);
        g_signal_connect(bus_.get(), "closed", G_CALLBACK(onClosed), this);
        vset::SetModel set(bus_.get(), options_.isPowerCycled);
        const vset::Services services(bus_.get(), set);
        const vset::Control control(bus_.get(), set);
        const vset::Console console(bus_.get(), set);
        set.power.ended.connect([this](vset::Ending ending) {
            end(ending == vset::Ending::Reboot ? vset::kExitReboot : vset::kExitPowerOff);
        });
        g_unix_signal_add(SIGTERM, onSignal, this);
        g_unix_signal_add(SIGINT, onSignal, this);
        g_bus_own_name_on_connection(bus_.get(), vset::kPlatformName, G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE,
                                     onAcquired, onLost, this, nullptr);
        g_main_loop_run(loop_.get());
        // The last events must leave the process before it ends.
        g_dbus_connection_flush_sync(bus_.get(), nullptr, nullptr);
        // A package's copy may be under way on its thread: nothing is torn down beside it.
        fflush(nullptr);
        quick_exit(status_);
    }

private:
    void end(int status)
    {
        status_ = status;
        g_main_loop_quit(loop_.get());
    }

    static void onAcquired(GDBusConnection*, const char*, gpointer self)
    {
        int& ready = static_cast<Service*>(self)->options_.readyFd;
        if (ready < 0) {
            return;
        }
        const char byte = '\n';
        if (write(ready, &byte, 1) != 1) {
            perror("platformd: nobody waits for the ready byte");
        }
        close(ready);
        ready = -1;
    }

    static void onLost(GDBusConnection* bus, const char* name, gpointer self)
    {
        if (bus != nullptr && g_dbus_connection_is_closed(bus) == FALSE) {
            fprintf(stderr, "platformd: the name %s is not to be had: is another platformd running?\n", name);
        }
        static_cast<Service*>(self)->end(EXIT_FAILURE);
    }

    static void onClosed(GDBusConnection*, gboolean, GError*, gpointer self)
    {
        fprintf(stderr, "platformd: the system bus is gone\n");
        static_cast<Service*>(self)->end(EXIT_FAILURE);
    }

    static gboolean onSignal(gpointer self)
    {
        static_cast<Service*>(self)->end(EXIT_SUCCESS);
        return G_SOURCE_CONTINUE;
    }

    Options options_;
    common::GlibPointer<GMainLoop> loop_;
    common::GlibPointer<GDBusConnection> bus_;
    int status_ = EXIT_SUCCESS;
};

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine program("platformd", "Platform services of a virtual set, on its system bus");
    Options options;
    bool isOnlyRecorded = false;
    program.number("--ready-fd", options.readyFd, common::Range<int>{0, 1 << 20},
                   "Where to write one byte once the services can be used");
    program.flag("--no-power-cycle", isOnlyRecorded, "Record reboots and power-offs, do not carry them out");
    program.footer("It is started by `vset run`. Exit status: 10 power the set off, 11 reboot it.");
    program.onRun([&] {
        options.isPowerCycled = !isOnlyRecorded;
        return Service(options).run();
    });
    return program.main(argc, argv);
}
