// An information file (info.json) as the daemon reads it: the verdict is the daemon's own code's, and every
// value gets a line that says what the daemon makes of it.
#ifndef TOOLS_FWMOD_IMAGES_INFORMATION_H
#define TOOLS_FWMOD_IMAGES_INFORMATION_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "src/src/fw-update-symbol.h"

namespace fwmod
{

struct InformationFinding {
    enum class Kind { Fine, Warning, Refused };
    Kind kind;
    std::string key;
    std::string value; // as it stands in the file, as JSON; "-" when absent
    std::string text;  // what the daemon makes of it, and what to do
};

struct InformationReport {
    bool accepted;        // by the daemon; with an image, the checksum counts too
    FWInformation values; // as the daemon holds them; complete only when accepted
    std::vector<InformationFinding> findings;
    std::vector<std::string> log; // what the daemon would log
};

// `image`: compare "crc" with the checksum of this file. Throws Failure when a file cannot be read.
InformationReport checkInformation(const std::filesystem::path& file,
                                   const std::optional<std::filesystem::path>& image);

// Compares "crc" with the checksum of an image of that name, which is not refused then, and adds the finding.
void compareChecksum(InformationReport& report, unsigned int checksum, const std::string& image);

// The text of an information file.
std::string formatInformation(const FWInformation& values);

// What was found, with the key and the value, where it is of one.
std::string textOf(const InformationFinding& finding);

// For people: one line a finding, the daemon's log lines, and the verdict.
std::string formatReport(const std::filesystem::path& file, const InformationReport& report);

} // namespace fwmod

#endif
