// psmountd: the set's only privileged service. It mounts package images for a daemon that has no
// privileges, and lets tests make it fail.

#include <cstdio>
#include <cstdlib>
#include <gio/gio.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "common/daemon/places.h"
#include "common/glib-pointers.h"
#include "common/terminal/command-line.h"
#include "common/terminal/visible-text.h"
#include "vset/psmountd/mount-service.h"

namespace
{

using psmount::Answer;
using psmount::MountService;

constexpr const char* kIntrospection = R"(<node>
  <interface name="org.pellor.psmount.Mounts">
    <method name="Mount">
      <arg name="command" type="s" direction="in"/>
      <arg name="retVal" type="i" direction="out"/><arg name="result" type="i" direction="out"/>
    </method>
    <method name="Mknod">
      <arg name="command" type="s" direction="in"/>
      <arg name="retVal" type="i" direction="out"/><arg name="result" type="i" direction="out"/>
    </method>
    <method name="Umount">
      <arg name="directory" type="s" direction="in"/>
      <arg name="retVal" type="i" direction="out"/><arg name="result" type="i" direction="out"/>
    </method>
  </interface>
  <interface name="org.pellor.psmount.Control">
    <method name="SetFault">
      <arg name="call" type="s" direction="in"/>
      <arg name="retVal" type="i" direction="in"/>
      <arg name="result" type="i" direction="in"/>
      <arg name="count" type="i" direction="in"/>
    </method>
  </interface>
</node>)";

struct Fault {
    Answer answer;
    int count = 0; // how often yet; negative: until it is set anew
};

struct Server {
    MountService service;
    std::map<std::string, Fault> faults;
    GMainLoop* loop = nullptr;
    int readyFd = -1;
    bool nameLost = false;
};

using Operation = Answer (MountService::*)(const std::string&);

const std::map<std::string, Operation>& operations()
{
    static const std::map<std::string, Operation> table{
        {"Mount", &MountService::mount}, {"Mknod", &MountService::mknod}, {"Umount", &MountService::umount}};
    return table;
}

// The answer that a test has asked for instead of the real one, if there is one left.
const Answer* takeFault(Server& server, const std::string& call)
{
    const auto entry = server.faults.find(call);
    if (entry == server.faults.end() || entry->second.count == 0) {
        return nullptr;
    }
    if (entry->second.count > 0) {
        --entry->second.count;
    }
    return &entry->second.answer;
}

Answer perform(Server& server, const std::string& call, const std::string& argument)
{
    if (const Answer* fault = takeFault(server, call)) {
        return *fault;
    }
    try {
        return (server.service.*operations().at(call))(argument);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "psmountd: %s\n", error.what());
        return {-1, EIO};
    }
}

void onMounts(Server& server, const char* method, GVariant* parameters, GDBusMethodInvocation* invocation)
{
    const char* argument = nullptr;
    g_variant_get(parameters, "(&s)", &argument);
    const Answer answer = perform(server, method, argument);
    std::fprintf(stderr, "psmountd: %s [%s]: %d, %d\n", method, common::visible(argument).c_str(),
                 answer.retVal, answer.result);
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(ii)", answer.retVal, answer.result));
}

void onControl(Server& server, GVariant* parameters, GDBusMethodInvocation* invocation)
{
    const char* call = nullptr;
    Fault fault;
    g_variant_get(parameters, "(&siii)", &call, &fault.answer.retVal, &fault.answer.result, &fault.count);
    if (operations().count(call) == 0) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                              "There is no call %s: use Mount, Mknod or Umount", call);
        return;
    }
    server.faults[call] = fault;
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

// GIO has checked method and argument types against the description above.
void onCall(GDBusConnection* /*connection*/, const char* /*sender*/, const char* /*path*/,
            const char* interface, const char* method, GVariant* parameters,
            GDBusMethodInvocation* invocation, gpointer data)
{
    auto& server = *static_cast<Server*>(data);
    if (g_str_has_suffix(interface, ".Control")) {
        onControl(server, parameters, invocation);
    } else {
        onMounts(server, method, parameters, invocation);
    }
}

void onNameAcquired(GDBusConnection* /*connection*/, const char* /*name*/, gpointer data)
{
    auto& server = *static_cast<Server*>(data);
    if (server.readyFd < 0) {
        return;
    }
    if (write(server.readyFd, "", 1) != 1) {
        std::perror("psmountd: cannot report readiness");
    }
    close(server.readyFd);
    server.readyFd = -1;
}

void onNameLost(GDBusConnection* /*connection*/, const char* name, gpointer data)
{
    auto& server = *static_cast<Server*>(data);
    std::fprintf(stderr, "psmountd: the bus is gone or %s is taken\n", name);
    server.nameLost = true;
    g_main_loop_quit(server.loop);
}

bool publish(GDBusConnection* bus, Server& server)
{
    static const GDBusInterfaceVTable table{onCall, nullptr, nullptr, {}};
    static GDBusNodeInfo* description = g_dbus_node_info_new_for_xml(kIntrospection, nullptr);
    for (GDBusInterfaceInfo** interface = description->interfaces; *interface != nullptr; ++interface) {
        if (g_dbus_connection_register_object(bus, common::places::kMountPath, *interface, &table, &server,
                                              nullptr, nullptr) == 0) {
            return false;
        }
    }
    return true;
}

int serve(Server& server)
{
    const common::GlibPointer<GDBusConnection> bus = common::systemBus();
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    server.loop = g_main_loop_new(nullptr, FALSE);
    if (!publish(bus.get(), server)) {
        std::fputs("psmountd: cannot publish the service\n", stderr);
        return EXIT_FAILURE;
    }
    g_bus_own_name_on_connection(bus.get(), common::places::kMountName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                 onNameAcquired, onNameLost, &server, nullptr);
    g_main_loop_run(server.loop);
    return server.nameLost ? EXIT_FAILURE : EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine program("psmountd", "Mount service of a virtual set; started by the set itself");
    unsigned int loopBase = 0;
    bool isFuse = false;
    int readyFd = -1;
    program.number("--loop-base", loopBase, common::Range<unsigned int>{0, 1U << 20},
                   "Kernel minor number of the set's /dev/loop0");
    program.flag("--fuse", isFuse, "Mount with squashfuse: no loop devices here");
    program.number("--ready-fd", readyFd, common::Range<int>{-1, 1 << 20},
                   "Gets one byte when the service is usable");
    program.footer("Example:\n  psmountd --loop-base 1024");
    program.onRun([&] {
        umask(0); // nodes get the mode that the caller asks for
        const auto images = isFuse ? MountService::Images::kFuse : MountService::Images::kLoopDevice;
        Server server{MountService(images, loopBase), {}};
        server.readyFd = readyFd;
        return serve(server);
    });
    return program.main(argc, argv);
}
