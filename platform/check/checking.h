// Makes the trials, each in a process of its own with limits of time, and gathers what they tell. This
// program is not linked to the platform: whatever its libraries do, they do to the trials.
#ifndef PLATFORM_CHECK_CHECKING_H
#define PLATFORM_CHECK_CHECKING_H

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/check/findings.h"
#include "platform/check/trials/trial-list.h"

namespace platformcheck
{

struct CheckOptions {
    std::filesystem::path image;     // empty: the sample of the build, if it has one
    std::filesystem::path directory; // to mount it on; empty: one where the daemon has its own
    std::filesystem::path preload;   // a library that goes before the platform's
    std::string package;
    std::string application;         // to be launched for a reply; empty: one that is not there
    std::vector<std::string> trials; // by name; empty: all
    unsigned int seconds = 0;        // that a person has for changing the power; 0: nobody does
    bool isReboot = false;
    bool isLogTextJudged = true;
};

using Seen = std::map<FindingId, std::vector<std::string>>; // once each

struct TrialReport {
    const ListedTrial* trial;
    double seconds = 0;
    Seen findings;
};

struct CheckReport {
    std::vector<std::string> libraries; // that the platform's calls come from
    std::vector<TrialReport> trials;
    Seen findings; // of all
    std::vector<std::string> notes;
    unsigned int calls = 0; // of the platform
};

// `showProgress` is called with what is being tried, and percent, several times a second. Throws WrongUse and
// Failure.
CheckReport checkPlatform(const CheckOptions& options,
                          const std::function<void(const std::string&, unsigned int)>& showProgress);

} // namespace platformcheck

#endif
