// A name on a bus, as others see it.
#ifndef BENCH_BUS_NAME_H
#define BENCH_BUS_NAME_H

#include <string>

#include "common/glib-pointers.h"

namespace bench
{

// Follows who owns the name. One thread, which runs its default main context while it waits.
class BusName
{
public:
    // `address` as D-Bus writes it. Throws std::runtime_error when there is no bus.
    BusName(const std::string& address, std::string name);
    ~BusName();
    BusName(const BusName&) = delete;
    BusName& operator=(const BusName&) = delete;

    // Both throw when it does not come to be in ten seconds.
    void waitUntilOwned();
    void waitUntilFree();
    // For the end of the bus itself.
    void waitUntilBusIsGone();

private:
    void waitUntil(const char* what, bool (*isSo)(const BusName&));
    bool askWhetherOwned();

    std::string name_;
    common::GlibPointer<GDBusConnection> bus_;
    guint subscription_ = 0;
    bool isOwned_ = false;
};

} // namespace bench

#endif
