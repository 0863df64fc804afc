// At which writes of an update the power is cut, and what comes of it.
//
// The cuts are made on a set whose clock is fast. A library that gives up after a time may fail there only
// because of it, or never come to the write. Such cuts are made again at the real pace, and what does not
// fail there does not count.
#ifndef TOOLS_FWMOD_CHECK_CUT_SURVEY_H
#define TOOLS_FWMOD_CHECK_CUT_SURVEY_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/fwmod/check/protocol/report.h"

namespace fwmod
{

class CutSurvey
{
public:
    using Writes = std::set<unsigned int>; // by number, from 1

    // `total`: writes that the update makes. Without `everyWrite` three hundred of them at most are chosen.
    CutSurvey(unsigned int total, bool everyWrite);

    const Writes& chosen() const { return chosen_; }

    void addHasty(const std::vector<CutTrial>& trials);
    void addAtPace(const std::vector<CutTrial>& trials);

    // The cuts to make at the real pace, after all that was added; in the end none.
    Writes openAtPace() const;

    unsigned int cuts() const;                         // that were made at all
    std::map<FindingId, std::string> findings() const; // "at writes 1, 2 and 17 of 133: ..."
    std::string note() const;                          // about cuts that were not made; may be empty

private:
    using Trials = std::map<unsigned int, std::map<FindingId, std::string>>; // by write: what was seen
    using Failures = std::map<FindingId, Writes>;

    static Trials trialsIn(const std::vector<CutTrial>& list);
    static Failures failuresIn(const Trials& trials);
    Writes missed() const;

    unsigned int total_;
    Writes chosen_;
    bool everyWrite_;
    Trials hasty_;
    Trials atPace_;
    Writes triedAtPace_; // also those that did not come to the cut
};

} // namespace fwmod

#endif
