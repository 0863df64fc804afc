// Ends a bus call that has waited for five seconds, whatever the set's clock does meanwhile.
//
// GLib's own time-out counts on the clock that a set can make run faster or jump: one jump of ten minutes
// would fail every call that is under way. This one counts on a timer of the kernel that the set's clock does
// not reach.
#ifndef PLATFORM_HOST_DEADLINE_H
#define PLATFORM_HOST_DEADLINE_H

#include "common/glib-pointers.h"

namespace platform
{

class Deadline
{
public:
    Deadline();
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

    // Cancelled when the time is over. Owned by this object.
    GCancellable* cancellable() const { return cancellable_.get(); }

private:
    friend class Ticker;

    common::GlibPointer<GCancellable> cancellable_;
    int ticksLeft_;
};

} // namespace platform

#endif
