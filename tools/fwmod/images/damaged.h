// Files of ours that are damaged beyond telling what stands in them.
#ifndef TOOLS_FWMOD_IMAGES_DAMAGED_H
#define TOOLS_FWMOD_IMAGES_DAMAGED_H

#include <string>

#include "common/errors.h"

namespace fwmod
{

// What a file can be, as "fwmod inspect" calls it.
constexpr char kPackageKind[] = "EMP package";
constexpr char kLibraryKind[] = "control library";

struct Damaged : common::Failure {
    Damaged(const char* fileKind, const std::string& text) : Failure(text), kind(fileKind) {}
    const char* kind; // one of the above
};

} // namespace fwmod

#endif
