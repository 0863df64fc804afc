// What control-examiner is to look at, in a file that "fwmod check" writes and it reads.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_JOB_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_JOB_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/fwmod/check/protocol/fault-places.h"
#include "tools/fwmod/check/protocol/holding.h"

namespace fwmod
{

struct Job {
    std::string name;           // of the library
    std::string library;        // its file
    bool isExternal = false;    // finds its image itself
    bool hasHardware = false;   // files that it may find
    std::string image;          // what doUpdate gets: the image's path, or an external module's
                                // name; "" when there is none to update with
    std::string imageDirectory; // as the set has it; "" without an image
    std::uint64_t checksum = 0; // 0 for an external module
    std::string otherImage;     // another sound one, for leftovers; "" when there is none
    std::string otherDirectory; // that it is in
    std::uint64_t otherChecksum = 0;
    std::string otherVersion;                   // "" where it is not known
    std::optional<std::string> version;         // offered
    unsigned int expectedTime = 0;              // seconds
    int caller = 0;                             // of setContext
    std::set<std::string> otherNames;           // that it exports beside the entry points
    std::map<std::string, std::string> mangled; // entry point and its C++ name, where only that is exported

    // From the update that was measured.
    double measured = 0;       // seconds that it took; 0 before it
    std::uint64_t bytes = 0;   // that it wrote
    std::string versionBefore; // that it replaced
    std::string versionAfter;  // and brought
    Holding holding;           // of the image
    FaultPlaces faults;
    bool isRepeatable = false;  // it worked, and can be repeated
    bool isVersionTold = false; // when nothing is wrong, and the same each time
    bool isOfferNewer = false;  // by the library's own judgement

    std::set<unsigned int> cuts; // the writes, from 1, before which the power is cut
    bool isCutsOnly = false;     // leave out everything else

    std::set<std::string> suspects; // calls that have ended a session before, and are not made again

    bool hasImage() const { return !image.empty(); }
};

// Throws std::runtime_error.
Job readJob(const std::filesystem::path& file);

// Throws Failure.
void writeJob(const Job& job, const std::filesystem::path& file);

} // namespace fwmod

#endif
