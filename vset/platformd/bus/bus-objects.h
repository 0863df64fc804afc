// An interface of the platform on the bus.
#ifndef VSET_PLATFORMD_BUS_BUS_OBJECTS_H
#define VSET_PLATFORMD_BUS_BUS_OBJECTS_H

#include <functional>
#include <gio/gio.h>
#include <string>

namespace vset
{

class BusObject
{
public:
    // Answers `invocation`, at once or later, and takes it over. Types and number of `parameters` are
    // checked.
    using Handler = std::function<void(const std::string& method, const std::string& sender,
                                       GVariant* parameters, GDBusMethodInvocation* invocation)>;

    // Serves `interface` on `bus`, which must outlive this object. Throws std::runtime_error.
    BusObject(GDBusConnection* bus, GDBusInterfaceInfo* interface, Handler handler);
    ~BusObject();
    BusObject(const BusObject&) = delete;
    BusObject& operator=(const BusObject&) = delete;

    // Sends a signal to everybody, or to one connection. Takes `parameters` over.
    void emit(const char* signal, GVariant* parameters, const char* destination = nullptr) const;

private:
    GDBusConnection* bus_;
    GDBusInterfaceInfo* interface_;
    Handler handler_;
    guint registration_ = 0;
};

} // namespace vset

#endif
