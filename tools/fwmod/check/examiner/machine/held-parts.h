// An image that no file has as a whole, but the hardware has piece by piece: without its head, or in blocks
// with a number or a checksum between them.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HELD_PARTS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HELD_PARTS_H

#include <filesystem>
#include <string>
#include <vector>

#include "tools/fwmod/check/protocol/holding.h"

namespace fwmod::examiner
{

// Below a root. None when they are less than most of the image: it is kept in another form then.
std::vector<HeldPart> partsOf(const std::string& image, const std::filesystem::path& root);

// Each at its place, or at any other.
bool arePartsThere(const std::vector<HeldPart>& parts, const std::string& image,
                   const std::filesystem::path& root);

} // namespace fwmod::examiner

#endif
