// The examination of a control library in a virtual set of its own, which is made for it and removed.
//
// This side prepares the set and a job; the program control-examiner does the work in the set (see
// examiner/).
#ifndef FWMOD_EXAMINATION_H
#define FWMOD_EXAMINATION_H

#include <filesystem>
#include <functional>
#include <json/json.h>
#include <map>
#include <string>
#include <vector>

namespace fwmod
{

struct ExaminationRequest {
    std::filesystem::path library;
    std::filesystem::path package;  // or
    std::filesystem::path firmware; // a directory of the system image; at most one of the two
    std::filesystem::path hardware; // content of /var/lib/hardware; may be empty
    bool everyWrite = false;        // cut the power at every write, however many there are
};

struct ExaminationResult {
    std::map<unsigned int, std::vector<std::string>> findings; // by number: what was seen, once each
    std::vector<std::string> notes;                            // what could not be checked
    unsigned int calls = 0;
    unsigned int cuts = 0;
    Json::Value measured; // "duration" in seconds, "proposedExpectedTime", "writes", "versionBefore",
                          // "versionAfter": those that are known
    unsigned int expectedTime = 0; // seconds; 0 when no information file tells
};

// `showProgress` is called with what is being done, and percent. Throws WrongUse and Failure.
ExaminationResult examineLibrary(const ExaminationRequest& request,
                                 const std::function<void(const std::string&, unsigned int)>& showProgress);

} // namespace fwmod

#endif
