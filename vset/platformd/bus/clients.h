// The programs that talk to the platform, by their bus connections.
#ifndef VSET_PLATFORMD_BUS_CLIENTS_H
#define VSET_PLATFORMD_BUS_CLIENTS_H

#include <gio/gio.h>
#include <json/json.h>
#include <map>
#include <string>

#include "vset/platformd/event.h"

namespace vset
{

struct Client {
    std::string name;    // unique name of its connection, such as ":1.7"
    int process = 0;     // as the set numbers processes; 0: outside the set, or ended already
    std::string command; // the process's name
};

// The client as it is shown: {"name", "pid", "command"}.
Json::Value toJson(const Client& client);

class Clients
{
public:
    // `bus` must outlive this object.
    explicit Clients(GDBusConnection* bus);
    ~Clients();
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    // Who is behind a unique name. Asks the bus at the first time, and remembers.
    const Client& find(const std::string& name);

    // A connection has ended, however its program did.
    Event<const std::string&> gone;

private:
    static void onOwnerChanged(GDBusConnection* bus, const char* sender, const char* path,
                               const char* interface, const char* signal, GVariant* parameters,
                               gpointer self);
    int askForProcess(const std::string& name) const;

    GDBusConnection* bus_;
    guint subscription_;
    std::map<std::string, Client> known_;
};

} // namespace vset

#endif
