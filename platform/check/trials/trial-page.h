// What a trial shows of itself: memory that it shares with the program that has started it, so that nothing
// of it is lost when a platform library crashes, hangs or ends the process.
#ifndef PLATFORM_CHECK_TRIALS_TRIAL_PAGE_H
#define PLATFORM_CHECK_TRIALS_TRIAL_PAGE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/check/findings.h"

namespace platformcheck
{

struct TrialPage {
    static constexpr std::size_t kThreads = 32;       // that call at a time
    static constexpr std::size_t kTextSize = 1 << 17; // of all that is told

    // A call that is under way.
    struct Call {
        std::atomic<std::int64_t> since; // in common::realNow(); 0: none
        char name[56];
    };

    std::atomic<bool> isStarted; // main() was reached
    std::atomic<bool> isDone;
    std::atomic<bool> isArgumentTouched; // at the crash
    std::atomic<bool> isDisturbed;       // by a machine that may be too busy to be judged on
    std::atomic<std::uint32_t> calls;
    Call underWay[kThreads];
    char lastWords[200];
    char situation[120]; // what is between the calls; "" when there is nothing to say of it
    std::atomic<std::uint32_t> used;
    char text[kTextSize];
};

struct PageUnmapper {
    void operator()(TrialPage* page) const;
};
using SharedPage = std::unique_ptr<TrialPage, PageUnmapper>;

// Throw Failure.
SharedPage makePage(const std::filesystem::path& file);
SharedPage openPage(const std::filesystem::path& file);

// A bit for each signal that this process ignores, the lowest for number 1: a program that is executed
// ignores them, too.
unsigned int ignoredSignals();

// What a trial tells, a line each.
enum class Line : char { kFinding = 'F', kNote = 'N', kLibrary = 'L', kRefusal = 'R' };
void tell(TrialPage& page, Line kind, const std::string& text, unsigned int number = 0);

// Between the call and its time, in what is told of a slow one.
inline constexpr const char* kTook = " took ";

struct Told {
    Line kind;
    unsigned int number; // of a finding
    std::string text;
};
std::vector<Told> readLines(const TrialPage& page);

// The call that has been under way for longest, of those whose names begin so; "" when there is none.
struct OldestCall {
    std::string name;
    std::int64_t since = 0;
};
OldestCall oldestCall(const TrialPage& page, const std::string& prefix = "");

} // namespace platformcheck

#endif
