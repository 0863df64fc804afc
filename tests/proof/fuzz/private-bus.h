// A bus without a daemon: two connections of this process to each other. The service has one of them and
// cannot tell the difference; the other one is all of its clients. For one thread, which runs the default
// main context.
#ifndef TESTS_PROOF_FUZZ_PRIVATE_BUS_H
#define TESTS_PROOF_FUZZ_PRIVATE_BUS_H

#include <gio/gio.h>
#include <optional>
#include <string>
#include <string_view>

#include "common/glib-pointers.h"

namespace fuzz
{

class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    GDBusConnection* service() const { return service_.get(); }

    // Calls a method as that client, without waiting for an answer. `words` is its name and its arguments,
    // with tabulators between them: as many as it has are made of what stands there, of whatever type. Other
    // names are no calls.
    void call(const GDBusInterfaceInfo* interface, const std::string& client, std::string_view words) const;
    // The same for a method without arguments whose answer is a text, which is waited for, and with it
    // everything that was called before.
    std::string ask(const GDBusInterfaceInfo* interface, const std::string& method) const;
    // The client's connection has ended.
    void leave(const std::string& client) const;

private:
    common::GlibPointer<GDBusConnection> service_;
    common::GlibPointer<GDBusConnection> clients_;
};

} // namespace fuzz

#endif
