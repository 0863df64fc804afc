// The interface for persons and tests: shows the set, and makes things happen to it.
#ifndef VSET_PLATFORMD_BUS_CONTROL_H
#define VSET_PLATFORMD_BUS_CONTROL_H

#include <string>

#include "vset/platformd/bus/bus-objects.h"
#include "vset/platformd/model/set-model.h"

namespace vset
{

class Control
{
public:
    // `bus` and `set` must outlive it.
    Control(GDBusConnection* bus, SetModel& set);

private:
    void handle(const std::string& method, const std::string& sender, GVariant* parameters,
                GDBusMethodInvocation* invocation);

    SetModel& set_;
    BusObject object_;
};

} // namespace vset

#endif
