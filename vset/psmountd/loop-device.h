// Loop devices of one set: those that its private /dev has nodes for.
#ifndef VSET_PSMOUNTD_LOOP_DEVICE_H
#define VSET_PSMOUNTD_LOOP_DEVICE_H

#include <optional>
#include <string>
#include <vector>

#include "vset/launcher/system.h"

namespace psmount
{

// The numbers N of the nodes /dev/loopN that are present, ascending.
std::vector<unsigned int> presentLoops();

// A loop device with an image attached, read-only. The kernel frees it by itself once it is neither open
// here nor mounted.
struct AttachedLoop {
    vset::UniqueFd device;
    std::string node;
};

// Attaches `image` to the first present device that is free. Nothing with errno set on failure: ENODEV when
// every present device is in use.
std::optional<AttachedLoop> attachLoop(int image, const std::string& name);

} // namespace psmount

#endif
