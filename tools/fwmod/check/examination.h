// The examination of a control library in a virtual set of its own, which is made for it and removed.
//
// This side prepares the set and a job; the program control-examiner does the work in the set (see
// examiner/).
#ifndef TOOLS_FWMOD_CHECK_EXAMINATION_H
#define TOOLS_FWMOD_CHECK_EXAMINATION_H

#include <filesystem>
#include <functional>
#include <string>

#include "tools/fwmod/check/protocol/report.h"

namespace fwmod
{

struct ExaminationRequest {
    std::filesystem::path library;
    std::filesystem::path package;  // or
    std::filesystem::path firmware; // a directory of the system image; at most one of the two
    std::filesystem::path other;    // another image, as a package or a directory; may be empty
    std::filesystem::path hardware; // content of /var/lib/hardware; may be empty
    bool everyWrite = false;        // cut the power at every write, however many there are
};

struct ExaminationResult {
    Report report;         // of all that was done, but for the power cuts, which are judged together
    unsigned int cuts = 0; // that were made
};

// `showProgress` is called with what is being done, and percent. Throws WrongUse and Failure.
ExaminationResult examineLibrary(const ExaminationRequest& request,
                                 const std::function<void(const std::string&, unsigned int)>& showProgress);

} // namespace fwmod

#endif
