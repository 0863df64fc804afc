// What control-examiner tells "fwmod check": lines of standard output, progress while it works and a report
// at the end.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_REPORT_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_REPORT_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "tools/fwmod/check/protocol/fault-places.h"
#include "tools/fwmod/check/protocol/findings.h"
#include "tools/fwmod/check/protocol/holding.h"

namespace fwmod
{

// The power cut before one write of an update.
struct CutTrial {
    unsigned int write = 0; // from 1
    bool isCut = false;     // false when the update ended before that write
    std::vector<Finding> findings;
    unsigned int calls = 0; // of the library
};

// What one update without a cut has shown. Times are in seconds.
struct Measured {
    bool isLoaded = false;
    std::string identifier;                   // "" when there is no sound one
    std::optional<std::string> versionBefore; // "" when none was told
    std::optional<std::string> versionAfter;
    bool isVersionTold = false; // when nothing is wrong, and the same each time
    bool isOfferNewer = false;  // by the library's own judgement
    bool isUpdated = false;     // doUpdate returned
    bool isUpdatable = false;   // and it worked, and its writes were seen: the power can be cut
    bool isRepeatable = false;  // and the right version was told: an update can be judged by it
    std::uint64_t bytes = 0;    // written
    Holding holding;            // of the image
    FaultPlaces faults;
    std::optional<unsigned int> writes;
    std::optional<double> duration;
    std::optional<unsigned int> proposedExpectedTime;
};

struct Report {
    void add(const Finding& finding);
    void add(const std::vector<Finding>& all);
    bool has(FindingId id) const { return findings.count(id) != 0; }

    std::map<FindingId, std::vector<std::string>> findings; // what was seen, once each
    std::vector<std::string> notes; // what could not be checked, and what to do about it
    Measured measured;
    std::vector<CutTrial> cuts;
    unsigned int calls = 0;         // of the library
    std::set<std::string> suspects; // calls that have ended a session
};

struct Progress {
    std::string text; // what is being done
    unsigned int percent = 0;
};

// Each is one line, without its end.
std::string lineOf(const Progress& progress);
std::string lineOf(const Report& report);
std::string lineOf(const CutTrial& trial);  // from a lane of power cuts to the examiner
std::string lineOf(const Finding& finding); // from a worker to its supervisor

// Nothing when the line is none of them.
std::optional<std::variant<Progress, Report>> readLine(const std::string& line);
std::optional<CutTrial> readCutTrial(const std::string& line);
std::optional<Finding> readFinding(const std::string& line);

} // namespace fwmod

#endif
