// How far the reading of something large is: a line on a terminal, when it takes more than a second, and
// which is taken away also when a signal ends the program.
#ifndef TOOLS_FWMOD_READING_PROGRESS_H
#define TOOLS_FWMOD_READING_PROGRESS_H

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include "common/process/interruption.h"
#include "common/terminal/progress-line.h"

namespace fwmod
{

// What `read` returns, which shows a ReadingProgress. A signal unwinds it, and then ends the program as if
// nobody had watched; where somebody watches already, it is his.
template <typename Read>
auto readToTheEnd(const Read& read)
{
    if (common::InterruptionWatch::isThere()) {
        return read();
    }
    try {
        const common::InterruptionWatch interruptions;
        return read();
    } catch (const common::Interrupted& interruption) {
        raise(interruption.signal);
        throw;
    }
}

class ReadingProgress
{
public:
    // `name` may come from anywhere.
    ReadingProgress(std::string name, std::uintmax_t size) : name_(std::move(name)), size_(size) {}
    ~ReadingProgress() { line_.clear(); } // also when it ends by an exception
    ReadingProgress(const ReadingProgress&) = delete;
    ReadingProgress& operator=(const ReadingProgress&) = delete;

    // Throws Interrupted when there was a signal, as long as there is an InterruptionWatch.
    void add(std::uintmax_t count)
    {
        common::InterruptionWatch::check();
        done_ += count;
        if (line_.isDrawn() && size_ > 0 && std::chrono::steady_clock::now() >= begin_) {
            line_.show(name_, static_cast<unsigned int>(static_cast<double>(done_) * 100 /
                                                        static_cast<double>(size_)));
        }
    }

private:
    std::string name_;
    std::uintmax_t size_;
    std::uintmax_t done_ = 0;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    common::ProgressLine line_;
};

} // namespace fwmod

#endif
