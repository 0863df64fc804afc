// The order to let a service of a running set crash: from a command outside of the set to its PID 1, which
// alone can end any service and start it again.
//
// One datagram each way over a socket in the set's /run, which only the set's root can write to.
#ifndef VSET_LAUNCHER_CRASH_ORDER_H
#define VSET_LAUNCHER_CRASH_ORDER_H

#include <chrono>
#include <functional>
#include <string>

#include "vset/launcher/set-directory.h"

namespace vset
{

struct CrashOrder {
    std::string service;                      // its program's name
    std::chrono::milliseconds downtime{1000}; // of the PC's time, until it is started again
};

constexpr std::chrono::milliseconds kLongestDowntime = std::chrono::hours(24);

// PID 1's end. Does not wait for anybody.
class CrashOrders
{
public:
    // Makes the socket; throws Error.
    CrashOrders();

    // Becomes readable when there is an order.
    int descriptor() const { return socket_.get(); }

    // Takes one order. `carryOut` returns what is wrong with it, or an empty text, which the sender gets.
    void take(const std::function<std::string(const CrashOrder&)>& carryOut) const;

private:
    UniqueFd socket_;
};

// Gives the order to a running set, and returns when the service has been ended. Throws Error when the set
// does not run, cannot be reached by this user, or has no such service running.
void orderCrash(const fs::path& set, const CrashOrder& order);

} // namespace vset

#endif
