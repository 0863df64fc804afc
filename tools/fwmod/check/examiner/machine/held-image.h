// Where the hardware holds an image, as far as it is kept there byte for byte.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HELD_IMAGE_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HELD_IMAGE_H

#include <filesystem>
#include <optional>
#include <string>

#include "tools/fwmod/check/examiner/machine/machine.h"
#include "tools/fwmod/check/protocol/job.h"

namespace fwmod::examiner
{

// Of the image that the job has: "" for an external module, which finds its own.
std::string imageOf(const Job& job);

Holding holdingOf(const Machine& machine, const std::string& image);

// Whether one of those files, below a root, holds it as well as it did after an update that nothing
// disturbed; or every part of it is there, wherever.
bool isHeld(const std::filesystem::path& root, const std::string& image, const Holding& holding);
inline bool isHeld(const Machine& machine, const std::string& image, const Holding& holding)
{
    return isHeld(machine.file("/"), image, holding);
}

// Whether some file of the hardware has these bytes.
bool isAnywhere(const Machine& machine, const std::string& bytes);

// Whether hardly anything that the hardware held before any update is on it any more, wherever.
bool isOldFirmwareGone(const Machine& machine);

// "0.0", as hardware tells that has no whole firmware.
bool isVersionOfNothing(const std::string& version);

// How many bytes at the image's end are missing, when a file has all the others: of an image that is nowhere
// whole. What ends in the middle of a block, or alone tells the version, is a trailer that was left out on
// purpose.
std::optional<std::size_t> missingAtEnd(const Machine& machine, const std::string& image,
                                        const std::string& version);

} // namespace fwmod::examiner

#endif
