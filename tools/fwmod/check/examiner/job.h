// What the examiner is to look at: read from a file that "fwmod check" wrote.
#ifndef EXAMINER_JOB_H
#define EXAMINER_JOB_H

#include <chrono>
#include <json/json.h>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace examiner
{

struct Job {
    std::string name;                   // of the library
    std::string library;                // its file
    bool isExternal;                    // finds its image itself
    bool hasImage;                      // there is one to update with
    std::string image;                  // what doUpdate gets: the image's path, or an external module's name
    std::string imageDirectory;         // as the set has it; "" without an image
    unsigned long checksum;             // 0 for an external module
    std::optional<std::string> version; // offered
    unsigned int expectedTime;          // seconds
    double measured;                    // seconds that the sound update took; 0 before it
    int caller;                         // of setContext
    std::map<std::string, std::string> mangled; // entry point and its C++ name, where only that is exported

    // Power cuts: the result of the update without one, and before which writes the power is cut.
    std::vector<unsigned int> cuts;
    std::uint64_t bytes;       // that the update wrote
    std::string versionBefore; // and the version that it replaced
    std::string versionAfter;  // and brought
    bool isVersionTold;        // when nothing is wrong, and the same each time
    bool isOfferNewer;         // by the library's own judgement
    bool cutsOnly;             // leave out everything else

    std::set<std::string> suspects; // calls that have ended a session before, and are not made again

    // How long a doUpdate may take before it counts as hanging.
    std::chrono::milliseconds updateLimit() const;
};

Job readJob(const std::string& file);

} // namespace examiner

#endif
