#include "tools/fwmod/check/cut-survey.h"

#include <algorithm>
#include <iterator>

namespace fwmod
{

namespace
{
constexpr unsigned int kMostChosen = 300; // of an ordinary image all, in half a minute
constexpr unsigned int kAtEachEnd = 25; // where the bookkeeping is; the others are evenly spread between them
constexpr std::size_t kMostMissed = 20; // to be made up for, because the real pace takes its time

CutSurvey::Writes choose(unsigned int total, bool everyWrite)
{
    CutSurvey::Writes chosen;
    const bool isAll = everyWrite || total <= kMostChosen;
    for (unsigned int write = 1; write <= total; ++write) {
        if (isAll || write <= kAtEachEnd || write > total - kAtEachEnd) {
            chosen.insert(write);
        }
    }
    const unsigned int inner = kMostChosen - 2 * kAtEachEnd;
    for (unsigned int index = 0; !isAll && index < inner; ++index) {
        chosen.insert(kAtEachEnd + 1 + index * (total - 2 * kAtEachEnd) / inner);
    }
    return chosen;
}

CutSurvey::Writes spread(const CutSurvey::Writes& writes, std::size_t most)
{
    if (writes.size() <= most) {
        return writes;
    }
    const std::vector<unsigned int> all(writes.begin(), writes.end());
    CutSurvey::Writes some;
    for (std::size_t index = 0; index < most; ++index) {
        some.insert(all[index * all.size() / most]);
    }
    return some;
}

CutSurvey::Writes without(const CutSurvey::Writes& all, const CutSurvey::Writes& done)
{
    CutSurvey::Writes rest;
    std::set_difference(all.begin(), all.end(), done.begin(), done.end(), std::inserter(rest, rest.end()));
    return rest;
}

// "at writes 1, 2 and 17 of 133".
std::string nameWrites(const CutSurvey::Writes& writes, unsigned int total)
{
    constexpr std::size_t kMostNamed = 8;
    std::string text = writes.size() == 1 ? "at write " : "at writes ";
    std::size_t named = 0;
    for (const unsigned int write : writes) {
        if (named == kMostNamed) {
            break;
        }
        const bool isLast = ++named == writes.size();
        text += (named == 1 ? "" : isLast ? " and " : ", ") + std::to_string(write);
    }
    if (named < writes.size()) {
        text += " and " + std::to_string(writes.size() - named) + " more";
    }
    return text + " of " + std::to_string(total);
}
} // namespace

CutSurvey::CutSurvey(unsigned int total, bool everyWrite)
    : total_(total), chosen_(choose(total, everyWrite)), everyWrite_(everyWrite)
{
}

void CutSurvey::addHasty(const std::vector<CutTrial>& trials)
{
    hasty_ = trialsIn(trials);
}

void CutSurvey::addAtPace(const std::vector<CutTrial>& trials)
{
    for (const CutTrial& trial : trials) {
        triedAtPace_.insert(trial.write);
    }
    atPace_.merge(trialsIn(trials));
}

CutSurvey::Trials CutSurvey::trialsIn(const std::vector<CutTrial>& list)
{
    Trials trials;
    for (const CutTrial& trial : list) {
        if (!trial.isCut) {
            continue;
        }
        auto& seen = trials[trial.write];
        for (const Finding& finding : trial.findings) {
            seen[finding.id] = finding.detail;
        }
    }
    return trials;
}

CutSurvey::Failures CutSurvey::failuresIn(const Trials& trials)
{
    Failures failures;
    for (const auto& [write, seen] : trials) {
        for (const auto& [id, detail] : seen) {
            failures[id].insert(write);
        }
    }
    return failures;
}

CutSurvey::Writes CutSurvey::missed() const
{
    Writes missed;
    for (const unsigned int write : chosen_) {
        if (hasty_.count(write) == 0) {
            missed.insert(write);
        }
    }
    return everyWrite_ ? missed : spread(missed, kMostMissed);
}

CutSurvey::Writes CutSurvey::openAtPace() const
{
    Writes open = missed();
    const Failures confirmed = failuresIn(atPace_);
    for (const auto& [id, writes] : failuresIn(hasty_)) {
        if (confirmed.count(id) != 0) {
            continue;
        }
        const Writes untried = without(writes, triedAtPace_);
        if (untried.size() < writes.size()) { // two have shown that this clock is too fast for it
            open.insert(untried.begin(), untried.end());
            continue;
        }
        open.insert(*writes.begin());
        open.insert(*std::next(writes.begin(), static_cast<std::ptrdiff_t>(writes.size() / 2)));
    }
    return without(open, triedAtPace_);
}

unsigned int CutSurvey::cuts() const
{
    Trials all = hasty_;
    all.insert(atPace_.begin(), atPace_.end());
    return static_cast<unsigned int>(all.size());
}

std::map<FindingId, std::string> CutSurvey::findings() const
{
    std::map<FindingId, std::string> findings;
    const Failures hasty = failuresIn(hasty_);
    for (const auto& [id, confirmed] : failuresIn(atPace_)) {
        Writes writes = confirmed;
        if (hasty.count(id) != 0) {
            writes.merge(without(hasty.at(id), triedAtPace_));
        }
        const std::string& detail = atPace_.at(*confirmed.begin()).at(id);
        findings[id] = nameWrites(writes, total_) + ": " + detail;
    }
    return findings;
}

std::string CutSurvey::note() const
{
    if (cuts() >= total_) {
        return "";
    }
    return "The power was cut at " + std::to_string(cuts()) + " of " + std::to_string(total_) +
           " writes; --every-write cuts it at each.";
}
} // namespace fwmod
