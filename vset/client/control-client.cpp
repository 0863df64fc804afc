#include "vset/client/control-client.h"

#include <cerrno>
#include <fcntl.h>
#include <glib.h>
#include <memory>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/daemon/places.h"
#include "common/files/unique-fd.h"
#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "vset/client/set-lock.h"
#include "vset/platformd/contract.h"

namespace vset
{

namespace
{

using common::places::kMountName;
using common::places::kMountPath;
constexpr const char* kMountControl = "org.pellor.psmount.Control";
constexpr const char* kThisSet = "this set";

// Makes `context` the one that GIO answers this thread in.
class ThreadContext
{
public:
    explicit ThreadContext(GMainContext* context) : context_(context)
    {
        g_main_context_push_thread_default(context_);
    }
    ~ThreadContext() { g_main_context_pop_thread_default(context_); }
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;

private:
    GMainContext* context_;
};

bool isMountCall(const std::string& call)
{
    return call == "PS_Mount" || call == "PS_Mknod" || call == "PS_Umount";
}

std::string textForPerson(const common::ErrorSlot& error, const std::string& whereabouts)
{
    const GError* const reason = error.get();
    const bool isGone = g_error_matches(reason, G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE ||
                        g_error_matches(reason, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY) != FALSE;
    const bool isMissing = g_error_matches(reason, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE ||
                           g_error_matches(reason, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE;
    if (isMissing) {
        return "the platform of " + whereabouts + " is not there: it is starting, or has just ended" +
               (whereabouts == kThisSet
                    ? ""
                    : "; `vset wait " + common::inShell(whereabouts.substr(4)) + " on` waits for it");
    }
    return isGone ? "the platform of " + whereabouts + " is gone (" + error.text() + ")" : error.text();
}

std::string notRunningText(const std::string& whereabouts)
{
    if (whereabouts == kThisSet) {
        return "there is no system bus of a set at " + std::string(common::places::kBusSocket) +
               ": start this program with `vset run SET -- ...` or `vset exec SET -- ...`";
    }
    const std::string set = whereabouts.substr(whereabouts.find(' ') + 1);
    if (isOn(set)) {
        return whereabouts +
               " is on, but its bus cannot be reached: it is starting, or going off; else somebody has "
               "taken " +
               std::string(common::places::kBusSocket) + " away in it, and it has to be run again";
    }
    return whereabouts + " is not running: start it with `vset run " + common::inShell(set) + "`";
}

[[noreturn]] void failToReach(const std::string& whereabouts, const std::string& why)
{
    throw ControlError("cannot reach the bus of " + whereabouts + ": " + why);
}

// ---- The way to a bus ----

int connectSocket(const std::string& path, const std::string& whereabouts, std::chrono::milliseconds longest)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        failToReach(whereabouts, "the socket's path is too long");
    }
    path.copy(address.sun_path, path.size());
    common::UniqueFd bus(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    // Of the handshake; GIO does not block later.
    const timeval limit = {longest.count() / 1000, longest.count() % 1000 * 1000};
    setsockopt(bus.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(bus.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(bus.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return bus.release();
    }
    if (errno == ENOENT || errno == ECONNREFUSED) {
        throw ControlError(notRunningText(whereabouts));
    }
    const int error = errno;
    failToReach(whereabouts, std::generic_category().message(error) +
                                 (error == EACCES ? " (it belongs to another user? then use sudo)" : ""));
}

void sendAll(int bus, std::string_view text, const std::string& whereabouts)
{
    if (send(bus, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        failToReach(whereabouts, "it does not listen");
    }
}

std::string receiveLine(int bus, const std::string& whereabouts)
{
    constexpr size_t kLongestLine = 1024;
    std::string line;
    char byte = 0;
    while (line.size() < kLongestLine && recv(bus, &byte, 1, 0) == 1) {
        if (byte == '\n') {
            return line;
        }
        line += byte;
    }
    failToReach(whereabouts, "it does not speak as a bus");
}

// Lets the bus see by itself which user we are, instead of naming one as GIO does: a set may have users of
// its own (rootless), in which our number is another one.
void authenticate(int bus, const std::string& whereabouts)
{
    using namespace std::string_view_literals;
    sendAll(bus, "\0AUTH EXTERNAL\r\n"sv, whereabouts);
    if (receiveLine(bus, whereabouts).rfind("DATA", 0) == 0) {
        sendAll(bus, "DATA\r\n"sv, whereabouts);
    }
    if (receiveLine(bus, whereabouts).rfind("OK", 0) != 0) {
        failToReach(whereabouts, "it does not know this user");
    }
    sendAll(bus, "BEGIN\r\n"sv, whereabouts);
}

} // namespace

const char* busText(const std::string& text)
{
    if (g_utf8_validate(text.c_str(), -1, nullptr) == FALSE) {
        throw ControlError("\"" + common::visible(text) + "\" is no UTF-8, which a set's texts consist of");
    }
    return text.c_str();
}

ControlClient ControlClient::ofSet(const std::string& set, std::chrono::milliseconds longest)
{
    if (access((set + "/root").c_str(), F_OK) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            throw ControlError("the set " + set +
                               " cannot be opened: " + std::generic_category().message(errno));
        }
        throw ControlError("there is no set in " + set + ": make one with `vset new " + common::inShell(set) +
                           "`");
    }
    // A socket's path has at most 107 bytes, a set's directory may have more: the way goes over a descriptor.
    const common::UniqueFd directory(
        open((set + "/root/run/dbus").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0) {
        throw ControlError(notRunningText("set " + set));
    }
    return ControlClient("/proc/self/fd/" + std::to_string(directory.get()) + "/system_bus_socket",
                         "set " + set, longest);
}

ControlClient ControlClient::inside()
{
    return ControlClient(common::places::kBusSocket, kThisSet, std::chrono::seconds(10));
}

ControlClient::ControlClient(const std::string& socketPath, const std::string& whereabouts,
                             std::chrono::milliseconds longest)
    : whereabouts_(whereabouts), longest_(static_cast<int>(longest.count())), context_(g_main_context_new())
{
    const ThreadContext ours(context_.get());
    common::UniqueFd bus(connectSocket(socketPath, whereabouts, longest));
    authenticate(bus.get(), whereabouts);
    common::ErrorSlot error;
    const common::GlibPointer<GSocket> socket(g_socket_new_from_fd(bus.get(), error.address()));
    if (socket == nullptr) {
        failToReach(whereabouts, error.text());
    }
    bus.release(); // the socket's from here on
    const common::GlibPointer<GSocketConnection> stream(
        g_socket_connection_factory_create_connection(socket.get()));
    bus_.reset(g_dbus_connection_new_sync(G_IO_STREAM(stream.get()), nullptr,
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION, nullptr, nullptr,
                                          error.address()));
    if (bus_ == nullptr) {
        // The bus takes everybody's connection, and closes those of users that its set does not know.
        const bool isClosed = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE;
        failToReach(whereabouts,
                    error.text() +
                        (isClosed && geteuid() != 0 ? " (it belongs to another user? then use sudo)" : ""));
    }
}

ControlClient::ControlClient(ControlClient&& other) noexcept = default;

ControlClient::~ControlClient()
{
    if (bus_ == nullptr) {
        return;
    }
    g_dbus_connection_close_sync(bus_.get(), nullptr, nullptr);
}

common::GlibPointer<GVariant> ControlClient::call(const char* method, GVariant* parameters,
                                                  const char* replyType) const
{
    return callInterface(kControlInterface, method, parameters, replyType);
}

common::GlibPointer<GVariant> ControlClient::callConsole(const char* method, GVariant* parameters,
                                                         const char* replyType) const
{
    return callInterface(kConsoleInterface, method, parameters, replyType);
}

common::GlibPointer<GVariant> ControlClient::callInterface(const char* interface, const char* method,
                                                           GVariant* parameters, const char* replyType) const
{
    common::ErrorSlot error;
    common::GlibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus_.get(), kPlatformName, kPlatformPath, interface, method, parameters, G_VARIANT_TYPE(replyType),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, longest_, nullptr, error.address()));
    if (reply == nullptr) {
        throw ControlError(textForPerson(error, whereabouts_));
    }
    return reply;
}

Json::Value ControlClient::snapshot() const
{
    const common::GlibPointer<GVariant> reply = call("Snapshot", nullptr, "(s)");
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    std::string why;
    auto json = common::parseJsonObject(text, &why);
    if (!json) {
        throw ControlError("the platform of " + whereabouts_ + " tells nonsense: " + why);
    }
    return *std::move(json);
}

void ControlClient::setSetting(const std::string& key, int value) const
{
    call("SetSetting", g_variant_new("(si)", busText(key), value));
}

void ControlClient::removeSetting(const std::string& key) const
{
    call("RemoveSetting", g_variant_new("(s)", busText(key)));
}

void ControlClient::setPowerState(int state) const
{
    call("SetPowerState", g_variant_new("(i)", state));
}

void ControlClient::powerOff(int reason) const
{
    call("PowerOff", g_variant_new("(i)", reason));
}

void ControlClient::reboot(unsigned int reason) const
{
    call("Reboot", g_variant_new("(u)", reason));
}

void ControlClient::setProperty(int key, const std::string& value) const
{
    call("SetProperty", g_variant_new("(is)", key, busText(value)));
}

void ControlClient::setPackageDelay(unsigned int milliseconds) const
{
    call("SetPackageDelay", g_variant_new("(u)", milliseconds));
}

void ControlClient::setPackageManagerDelay(int milliseconds) const
{
    call("SetPackageManagerDelay", g_variant_new("(i)", milliseconds));
}

void ControlClient::replyLaunch(unsigned int launch, int result) const
{
    call("ReplyLaunch", g_variant_new("(ui)", launch, result));
}

// ---- Faults ----

void ControlClient::setFault(const std::string& name, int result, int count,
                             const std::string& argument) const
{
    if (!isMountCall(name)) {
        call("SetFault", g_variant_new("(ssii)", busText(name), busText(argument), result, count));
        return;
    }
    if (!argument.empty()) {
        throw ControlError("a fault of " + name + " cannot be limited to an argument");
    }
    // Its callers look at an error number beside the result.
    setMountFault(name, result, result == 0 ? 0 : EIO, count);
}

void ControlClient::setMountFault(const std::string& name, int returned, int result, int count) const
{
    const std::string method = name.substr(name.find('_') + 1); // PS_Mount is Mount there
    common::ErrorSlot error;
    const common::GlibPointer<GVariant> reply(
        g_dbus_connection_call_sync(bus_.get(), kMountName, kMountPath, kMountControl, "SetFault",
                                    g_variant_new("(siii)", method.c_str(), returned, result, count), nullptr,
                                    G_DBUS_CALL_FLAGS_NO_AUTO_START, longest_, nullptr, error.address()));
    if (reply == nullptr) {
        throw ControlError("the mount service of " + whereabouts_ + ": " + error.text());
    }
}

void ControlClient::setDelay(const std::string& name, unsigned int milliseconds, int count,
                             const std::string& argument) const
{
    if (isMountCall(name)) {
        throw ControlError("the mount service cannot be made late, only made to fail");
    }
    call("SetDelay", g_variant_new("(ssui)", busText(name), busText(argument), milliseconds, count));
}

void ControlClient::resetFaults(const std::string& name) const
{
    if (isMountCall(name)) {
        setMountFault(name, 0, 0, 0);
        return;
    }
    call("ResetFaults", g_variant_new("(s)", busText(name)));
    if (!name.empty()) {
        return;
    }
    for (const char* mountCall : {"PS_Mount", "PS_Mknod", "PS_Umount"}) {
        try {
            setMountFault(mountCall, 0, 0, 0);
        } catch (const ControlError&) {
            return; // who may not speak to the mount service has not ordered a fault there either
        }
    }
}

// ---- Waiting ----

namespace
{

// Hears of the set's changes, and of the end of a time, in a context of its own.
class ChangeWatch
{
public:
    ChangeWatch(GDBusConnection* bus, GMainContext* context, std::chrono::milliseconds limit)
        : bus_(bus), context_(context), timer_(g_timeout_source_new(static_cast<guint>(limit.count())))
    {
        subscription_ = g_dbus_connection_signal_subscribe(bus_, kPlatformName, kControlInterface, "Changed",
                                                           kPlatformPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                           onChanged, this, nullptr);
        closed_ = g_signal_connect(bus_, "closed", G_CALLBACK(onClosed), this);
        g_source_set_callback(timer_, onTime, this, nullptr);
        g_source_attach(timer_, context_);
    }

    ~ChangeWatch()
    {
        g_signal_handler_disconnect(bus_, closed_);
        g_dbus_connection_signal_unsubscribe(bus_, subscription_);
        g_source_destroy(timer_);
        g_source_unref(timer_);
        while (g_main_context_iteration(context_, FALSE) != FALSE) {
            // what was on its way to this object is delivered to nobody now
        }
    }

    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    // False when the time is over and nothing has changed any more.
    bool waitForChange()
    {
        while (!isChanged_ && !isOver_) {
            g_main_context_iteration(context_, TRUE);
        }
        return std::exchange(isChanged_, false);
    }

private:
    static void onChanged(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
                          gpointer self)
    {
        static_cast<ChangeWatch*>(self)->isChanged_ = true;
    }

    // The next snapshot will say what has happened.
    static void onClosed(GDBusConnection*, gboolean, GError*, gpointer self)
    {
        static_cast<ChangeWatch*>(self)->isChanged_ = true;
    }

    static gboolean onTime(gpointer self)
    {
        static_cast<ChangeWatch*>(self)->isOver_ = true;
        return G_SOURCE_REMOVE;
    }

    GDBusConnection* bus_;
    GMainContext* context_;
    GSource* timer_;
    guint subscription_ = 0;
    gulong closed_ = 0;
    bool isChanged_ = false;
    bool isOver_ = false;
};

} // namespace

Json::Value ControlClient::waitUntil(const std::function<bool(const Json::Value&)>& condition,
                                     std::chrono::milliseconds limit) const
{
    const ThreadContext ours(context_.get());
    ChangeWatch watch(bus_.get(), context_.get(), limit);
    while (true) {
        Json::Value now = snapshot(); // asked for after the subscription, so no change is missed
        if (condition(now)) {
            return now;
        }
        if (!watch.waitForChange()) {
            throw ControlError("not reached within " + std::to_string(limit.count()) + " ms");
        }
    }
}

} // namespace vset
