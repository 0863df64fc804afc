#include "vset/platformd/bus/clients.h"

#include <fstream>

#include "common/glib-pointers.h"

namespace vset
{

namespace
{

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

std::string commandOf(int process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/comm");
    std::string command;
    std::getline(file, command);
    const common::GlibPointer<char> valid(
        g_utf8_make_valid(command.c_str(), -1)); // a program chooses its name itself
    return valid.get();
}

} // namespace

Json::Value toJson(const Client& client)
{
    Json::Value json;
    json["name"] = client.name;
    json["pid"] = client.process;
    json["command"] = client.command;
    return json;
}

Clients::Clients(GDBusConnection* bus) : bus_(bus)
{
    subscription_ =
        g_dbus_connection_signal_subscribe(bus_, kBusName, kBusName, "NameOwnerChanged", kBusPath, nullptr,
                                           G_DBUS_SIGNAL_FLAGS_NONE, onOwnerChanged, this, nullptr);
}

Clients::~Clients()
{
    g_dbus_connection_signal_unsubscribe(bus_, subscription_);
}

const Client& Clients::find(const std::string& name)
{
    const auto known = known_.find(name);
    if (known != known_.end()) {
        return known->second;
    }
    Client client;
    client.name = name;
    client.process = askForProcess(name);
    // The bus cannot number a process outside the set.
    client.command = client.process == 0 ? "outside" : commandOf(client.process);
    return known_.emplace(name, client).first->second;
}

int Clients::askForProcess(const std::string& name) const
{
    const common::GlibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus_, kBusName, kBusPath, kBusName, "GetConnectionUnixProcessID", g_variant_new("(s)", name.c_str()),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, G_MAXINT, nullptr, nullptr));
    guint32 process = 0;
    if (reply != nullptr) {
        g_variant_get(reply.get(), "(u)", &process);
    }
    return static_cast<int>(process);
}

void Clients::onOwnerChanged(GDBusConnection*, const char*, const char*, const char*, const char*,
                             GVariant* parameters, gpointer self)
{
    const char* name = nullptr;
    const char* owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", &name, nullptr, &owner);
    if (name[0] != ':' || owner[0] != '\0') {
        return;
    }
    auto* const clients = static_cast<Clients*>(self);
    clients->known_.erase(name);
    clients->gone.tell(name);
}

} // namespace vset
