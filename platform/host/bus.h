// One call over the set's system bus, as every call of the platform makes it.
//
// Thread-safe, and needs no running main loop: the caller waits for the reply, at most five seconds. A bus or
// a service that is not there is an ordinary answer (a negative result), never a crash and never a hang.
#ifndef PLATFORM_HOST_BUS_H
#define PLATFORM_HOST_BUS_H

#include <string>

#include "common/glib-pointers.h"

namespace platform
{

inline constexpr int kFailure = -1;

using Variant = common::GlibPointer<GVariant>;
using Connection = common::GlibPointer<GDBusConnection>;

// A service of the set: its name, object and interface on the bus.
struct Service {
    const char* name;
    const char* path;
    const char* interface;
};

inline constexpr Service kPlatform = {"org.pellor.platform", "/org/pellor/platform",
                                      "org.pellor.platform.Services"};
inline constexpr Service kMounts = {"org.pellor.psmount", "/org/pellor/psmount", "org.pellor.psmount.Mounts"};

// The process's connection to the bus, shared with everybody else in the process; null when there is no bus.
Connection connection();

// Calls `method` and waits. The reply is a tuple of type `replyType`; null on any failure. Takes `parameters`
// over when it is floating, as g_dbus_connection_call_sync does; null stands for none.
Variant call(const Service& service, const char* method, GVariant* parameters, const char* replyType);

// The same on the platform service, for the calls that answer with nothing but their result.
int callForResult(const char* method, GVariant* parameters = nullptr);

// Whether `text` can travel over the bus: not null, valid UTF-8.
bool isText(const char* text);

} // namespace platform

#endif
