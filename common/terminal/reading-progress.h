// How far the reading of something large is: a line on a terminal, when it takes more than a second, and
// which is taken away at the end, also by a signal that ends the program.
#ifndef COMMON_TERMINAL_READING_PROGRESS_H
#define COMMON_TERMINAL_READING_PROGRESS_H

#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include "common/process/interruption.h"
#include "common/terminal/progress-line.h"

namespace common
{

// What `read` returns, which shows a ReadingProgress. A signal unwinds it, and then ends the program as if
// nobody had watched; where somebody watches already, it is his.
template <typename Read>
auto readToTheEnd(const Read& read)
{
    if (InterruptionWatch::isThere()) {
        return read();
    }
    try {
        const InterruptionWatch interruptions;
        return read();
    } catch (const Interrupted& interruption) {
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
    void add(std::uintmax_t count) { reach(done_ + count); }
    void reach(std::uintmax_t done)
    {
        InterruptionWatch::check();
        done_ = done;
        if (line_.isDrawn() && size_ > 0 && std::chrono::steady_clock::now() >= begin_) {
            line_.show(name_, static_cast<unsigned int>(static_cast<double>(done_) * 100 /
                                                        static_cast<double>(size_)));
        }
    }

    void clear() { line_.clear(); } // for what is said meanwhile

private:
    std::string name_;
    std::uintmax_t size_;
    std::uintmax_t done_ = 0;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    ProgressLine line_;
};

} // namespace common

#endif
