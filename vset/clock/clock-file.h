// The file with a set's clock page, as its writers see it: the launcher, `vset clock`, and the console.
#ifndef VSET_CLOCK_CLOCK_FILE_H
#define VSET_CLOCK_CLOCK_FILE_H

#include <optional>
#include <string>

#include "vset/clock/clock-page.h"

namespace vset
{

// Rates outside of this make no sense for waits that take milliseconds, and are refused.
constexpr double kLowestRate = 0.01;
constexpr double kHighestRate = 1000.0;
constexpr double kLongestJump = 10.0 * 365 * 86400; // seconds, of one jump

struct ClockChange {
    std::optional<double> rate;
    // Seconds. Forwards, monotonic and wall time jump together, and waits end accordingly; backwards, only
    // the wall time does, because monotonic time never goes back.
    std::optional<double> jump;
};

// The page, mapped for writing and locked against other writers as long as this object lives. Times are the
// PC's, also in a process that runs on the set's clock. What cannot be opened is a std::system_error.
class ClockFile
{
public:
    enum class Opening { kExisting, kNewToo };
    ClockFile(const std::string& path, Opening opening);
    ~ClockFile();
    ClockFile(const ClockFile&) = delete;
    ClockFile& operator=(const ClockFile&) = delete;

    // The PC's time now, which goes on at `rate`. Throws common::WrongUse for a rate out of range.
    void reset(double rate);

    // Throws common::WrongUse, with the clock as it was, for a rate or jump that is no number or out of
    // range, or that would lead out of the years 1970 to 2099.
    void change(const ClockChange& change);

    // For a person: date, rate, and how far it is ahead of the PC's clock.
    std::string description() const;

    int descriptor() const { return file_; }

private:
    void store(const ClockState& state);
    ClockPage& page() const { return *static_cast<ClockPage*>(memory_); }

    int file_;
    void* memory_;
};

} // namespace vset

#endif
