// Which callback wants to hear of which event of the platform service.
//
// Callbacks run on the thread that runs the default main context, whichever thread subscribed. Unsubscribing
// works from any thread, the callback itself included; a callback that has not begun when it returns does not
// run any more, one that is running on the main thread at that moment ends in its own time.
//
// A service that crashes takes its list of who wants to hear of what with it. When its name is on the bus
// again, the main loop subscribes anew to what is still wanted; answers that were under way are lost.
#ifndef PLATFORM_HOST_SUBSCRIPTIONS_H
#define PLATFORM_HOST_SUBSCRIPTIONS_H

#include <functional>

#include "platform/host/bus.h"

namespace platform
{

// An event: the signal's name on the bus, the first argument it is chosen by (null: all), and the service's
// methods that open and close it.
struct EventKind {
    const char* signal;
    const char* subscribeMethod;
    const char* unsubscribeMethod;
};

using CallbackIdentity = void (*)(); // a callback of any type, only to be compared
using Deliver = std::function<void(GVariant* parameters)>;

// `argument` is the value of the signal's first argument and of the methods' only one; null for events
// without. 0, or negative: nothing is subscribed then.
int subscribe(const EventKind& kind, const char* argument, CallbackIdentity identity, Deliver deliver);

// Ends every subscription of `identity` to that event; negative when there is none, or when the service says
// so.
int unsubscribe(const EventKind& kind, const char* argument, CallbackIdentity identity);

// Runs `deliver` once, at the first `signal` whose first argument is the number `id`. False when there is no
// bus.
bool expectOnce(const char* signal, guint id, Deliver deliver);
// The answer of `id` is not wanted any more.
void forget(const char* signal, guint id);

} // namespace platform

#endif
