// The interface that the platform library calls: each method is one call of its headers.
#ifndef VSET_PLATFORMD_BUS_SERVICES_H
#define VSET_PLATFORMD_BUS_SERVICES_H

#include <string>
#include <vector>

#include "vset/platformd/bus/bus-objects.h"
#include "vset/platformd/model/set-model.h"

namespace vset
{

class Services
{
public:
    // `bus` and `set` must outlive it.
    Services(GDBusConnection* bus, SetModel& set);

    // The names of the calls as their headers declare them, in the interface's order.
    static std::vector<std::string> callNames();

private:
    void handle(const std::string& method, const std::string& sender, GVariant* parameters,
                GDBusMethodInvocation* invocation);
    void connectSignals();

    SetModel& set_;
    BusObject object_;
};

} // namespace vset

#endif
