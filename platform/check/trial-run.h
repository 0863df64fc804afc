// One trial under way, in a process of its own with limits of time.
#ifndef PLATFORM_CHECK_TRIAL_RUN_H
#define PLATFORM_CHECK_TRIAL_RUN_H

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "common/process/contained-process.h"
#include "platform/check/trials/trial-list.h"
#include "platform/check/trials/trial-page.h"

namespace platformcheck
{

inline constexpr std::chrono::seconds kQuietLimit{25}; // without a call

// How a trial has come to its end.
struct Ending {
    bool isLate = false; // and was ended
    int status = 0;
    std::string output; // its last part
};

// Whether a trial has come to a stop: a call that does not return, or nothing at all that happens.
class Patience
{
public:
    Patience(const TrialPage& page, std::chrono::seconds quiet) : page_(page), quiet_(quiet) {}
    bool isOver();

private:
    using Clock = std::chrono::steady_clock;
    const TrialPage& page_;
    std::chrono::seconds quiet_; // for so long a trial may wait without a call
    unsigned int calls_ = 0;
    Clock::time_point begin_ = Clock::now();
    Clock::time_point latest_ = begin_;
};

class TrialRun
{
public:
    // `arguments` begin with the program; `page` is that of the file which they name. `patience` comes on top
    // of what a trial may wait without a call.
    TrialRun(const ListedTrial& trial, SharedPage page, const std::vector<std::string>& arguments,
             const std::filesystem::path& preload, std::chrono::seconds patience);

    const ListedTrial& trial() const { return trial_; }
    const TrialPage& page() const { return *page_; }
    const Ending& ending() const { return ending_; } // when it has ended
    double seconds() const;

    int output() const { return process_.output(); } // for poll()
    int news() const { return process_.news(); }

    // Whether it has ended; one whose time is up is brought to its end.
    bool hasEnded();
    void kill() const { process_.kill(); }

private:
    void takeOutput();

    const ListedTrial& trial_;
    SharedPage page_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point end_ = begin_; // or the latest look
    bool isOver_ = false;
    common::ContainedProcess process_;
    Patience patience_;
    Ending ending_;
};

} // namespace platformcheck

#endif
