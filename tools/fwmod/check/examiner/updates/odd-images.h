// Images that are not the offered one, each with its right checksum: what is in them decides whether they are
// taken.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_ODD_IMAGES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_ODD_IMAGES_H

#include <filesystem>
#include <string>
#include <vector>

#include "tools/fwmod/check/examiner/machine/machine.h"
#include "tools/fwmod/check/protocol/job.h"

namespace fwmod::examiner
{

// What is refused for its content only, at most: its checksum is right.
struct OddImage {
    std::string what;
    std::string file;
    unsigned long checksum;
};

// In `what` of the image with one byte changed.
inline constexpr const char* kChanged = "the image with one byte changed";

// Of an image, as the daemon computes it.
unsigned long checksumOf(const std::string& image);

// What is no firmware. Each is made in a directory of its own of `place`, under the offered image's name.
std::vector<OddImage> makeOddImages(const Job& job, const Machine& place);

// Whether it can be told from the image is the format's affair: it may have a checksum of its own.
OddImage makeChangedImage(const Job& job, const Machine& place);

// With four bytes changed so that its checksum is 0.
OddImage makeZeroImage(const Job& job, const Machine& place);
inline constexpr std::uintmax_t kLeastToSolve = 16; // bytes, of which four decide the checksum

// More than a careless buffer has.
OddImage makeLongerImage(const Job& job, const Machine& place);

} // namespace fwmod::examiner

#endif
