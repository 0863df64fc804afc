// A range of loop devices that belongs to one running set.
//
// The kernel numbers loop devices globally; the set's private /dev names them loop0, loop1, ... The range of
// slot S starts at 1024 + 256 * S, far from what the PC itself uses. The slot is held by an abstract socket
// address, which the kernel frees by itself when the last holder has died, however it died.
#ifndef VSET_LAUNCHER_LOOP_SLOT_H
#define VSET_LAUNCHER_LOOP_SLOT_H

#include "vset/launcher/system.h"

namespace vset
{

class LoopSlot
{
public:
    // Takes the first free slot; throws Error when all are taken. Needs no privilege.
    static LoopSlot take();

    // Minor number of the set's /dev/loop0.
    unsigned int base() const { return base_; }

    // Frees and removes the kernel devices of the range. This takes tens of milliseconds for each, hence a
    // detached child does it, which keeps the slot meanwhile.
    void cleanInBackground() const;

private:
    LoopSlot(UniqueFd holder, unsigned int base) : holder_(std::move(holder)), base_(base) {}

    UniqueFd holder_;
    unsigned int base_;
};

} // namespace vset

#endif
