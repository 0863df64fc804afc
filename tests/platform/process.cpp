// What no call may do to the process that makes it.
#include <clocale>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gio/gio.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "applaunch.h"
#include "common/glib-pointers.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "tests/platform/proof.h"

namespace proof
{

namespace
{

void mountNothing()
{
    const char command[1024] = "-o ro,loop,nodev,nosuid /opt/none.img /opt/none";
    int result = 0;
    PS_Mount(command, sizeof command, 0, &result);
}

std::string directoryKept()
{
    const std::filesystem::path before = std::filesystem::current_path();
    mountNothing();
    return std::filesystem::current_path() == before ? "" : "the working directory is another one";
}

std::string childrenKept()
{
    mountNothing();
    struct sigaction action{};
    sigaction(SIGCHLD, nullptr, &action);
    return action.sa_handler == SIG_DFL ? "" : "SIGCHLD has another disposition";
}

std::string maskKept()
{
    umask(022);
    FlagpostEventDone("/tmp/.proof-mask");
    return umask(022) == 022 ? "" : "the umask is another one";
}

std::string launch(const std::function<std::string()>& look)
{
    applaunch_h request = nullptr;
    applaunch_create(&request);
    applaunch_set_app_id(request, "com.olvessa.tv.proof");
    applaunch_send_launch_request(request, nullptr, nullptr);
    applaunch_destroy(request);
    return look();
}

std::string signalsKept()
{
    hangwatch_register_watchdog_service(60);
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    hangwatch_unregister_watchdog_service();
    return sigismember(&blocked, SIGTERM) == 0 ? "" : "SIGTERM is blocked";
}

int ignoreState(pwrctl_state_info*, void*)
{
    return 0;
}

std::string contextKept()
{
    pwrctl_subscribe_state_changed_event(ignoreState, nullptr);
    const bool isKept = g_main_context_get_thread_default() == nullptr;
    pwrctl_unsubscribe_state_changed_event(ignoreState);
    return isKept ? "" : "another main context is this thread's default";
}

std::string nameIsFree()
{
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const common::GlibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
        g_variant_new("(s)", "org.pellor.tv.tarnwick"), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 2000,
        nullptr, nullptr));
    gboolean hasOwner = FALSE;
    g_variant_get(reply.get(), "(b)", &hasOwner);
    return hasOwner == FALSE ? "" : "the daemon's name has an owner";
}

std::string localeAtStart()
{
    return strcmp(setlocale(LC_ALL, nullptr), "C") == 0 ? "" : "another locale at the start";
}

std::string descriptorFlags()
{
    const int inherited = open("/dev/null", O_RDONLY);
    FlagpostEventDone("/tmp/.proof-flags");
    return fcntl(inherited, F_GETFD) == 0 ? "" : "a descriptor's flags are others";
}

std::string ownAlarm()
{
    alarm(1000);
    pwrctl_get_state();
    return alarm(0) > 900 ? "" : "the caller's alarm is gone";
}

std::string threadsThatComeAndGo()
{
    return growth("descriptors", openDescriptors, 5, [] { std::thread(pwrctl_get_state).join(); });
}

long ownChildren()
{
    std::ifstream in("/proc/self/task/" + std::to_string(getpid()) + "/children");
    return std::distance(std::istream_iterator<std::string>(in), {});
}

std::string helpersOfFlags()
{
    return growth("children", ownChildren, 5, [] { FlagpostEventDone("/tmp/.proof-helpers"); });
}

} // namespace

const std::vector<Proof>& processProofs()
{
    static const std::vector<Proof> proofs = {
        {"process-directory", directoryKept},
        {"process-children-ignored", childrenKept},
        {"process-umask", maskKept},
        {"process-locale-when-loaded", localeAtStart},
        {"process-handlers-when-loaded",
         [] {
             struct sigaction action = {};
             sigaction(SIGABRT, nullptr, &action);
             return action.sa_handler == SIG_DFL ? "" : "there is one";
         }},
        {"process-pipe-signal-ignored", [] { return isPipeSignalIgnored ? "SIGPIPE is ignored" : ""; }},
        {"process-descriptor-flags", descriptorFlags},
        {"process-alarm-taken", ownAlarm},
        {"process-thread-descriptors", threadsThatComeAndGo},
        {"process-helpers-left", helpersOfFlags},
        {"process-locale",
         [] {
             return launch(
                 [] { return strcmp(setlocale(LC_ALL, nullptr), "C") == 0 ? "" : "another locale"; });
         }},
        {"process-alarm", [] { return launch([] { return alarm(0) == 0 ? "" : "an alarm is pending"; }); }},
        {"process-signals-blocked", signalsKept},
        {"process-context-pushed", contextKept},
        {"process-bus-name", nameIsFree},
    };
    return proofs;
}

} // namespace proof
