// The power of one set, seen from outside: its `vset run`, what is done while something of the set is waited
// for, and the set's end, also in the middle of a call.
//
// Failures are tarnwick::TelevisionError and its kinds. One thread.
#ifndef VSET_TELEVISION_SET_POWER_H
#define VSET_TELEVISION_SET_POWER_H

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"
#include "vset/client/control-client.h"
#include "vset/client/platform-log.h"
#include "vset/story/story-teller.h"
#include "vset/television/process.h"

namespace vset
{

class SetPower
{
public:
    using TakeLine = std::function<void(const std::string& line)>;

    // `vset`: the program. `isRootless`: as `vset run -u`.
    SetPower(std::filesystem::path vset, std::filesystem::path set, bool isRootless);

    // ---- On and off ----

    // `vset run` with these words behind the set's. `takeLine` gets the lines of its standard output, in the
    // waits.
    void start(const std::vector<std::string>& words, TakeLine takeLine = {});
    void end(); // in good order; nothing when it is off
    void cut(); // at once
    bool isOn() { return launcher_ && launcher_->isRunning(); }
    bool hasEnded() { return launcher_ && !launcher_->isRunning(); } // by itself
    void closeInput() { launcher_->closeInput(); }
    // Its exit status; nothing when the set is still on after `longest`.
    std::optional<int> waitForEnd(std::chrono::milliseconds longest);
    // What it wrote to standard error.
    std::string notes() const;

    // ---- In every wait ----

    // What happens in the set from now on, told line by line.
    void tellStory(TakeLine tell);
    // What it throws ends the wait.
    void watch(Meanwhile look) { watch_ = std::move(look); }
    // One look: what a wait does again and again.
    void look();

    // ---- What the set's end can come between ----

    void throwIfCut() const; // PowerWasCut
    // Of a set that has ended: PowerWasCut, or that it has ended before `what`.
    [[noreturn]] void failOnEnd(const std::string& what) const;
    // A failure of something that was tried with the running set: the set's end, if that is why.
    [[noreturn]] void fail(const std::string& why);
    // Something that is done with the set's platform; after a reboot the connection is a new one.
    template <typename Action>
    auto act(const Action& action)
    {
        try {
            return action(ControlClient::ofSet(set_));
        } catch (const ControlError& error) {
            fail(error.what());
        }
    }
    // A command of `vset` that must succeed.
    void command(const std::vector<std::string>& words);

private:
    void tellNews();
    void takeLines();

    std::filesystem::path vset_;
    std::filesystem::path set_;
    bool isRootless_;
    std::unique_ptr<Process> launcher_;

    TakeLine takeLine_;
    std::ifstream output_; // of the launcher
    std::string unfinishedLine_;
    TakeLine tell_;
    StoryTeller teller_;
    std::unique_ptr<LogReader> log_;
    Meanwhile watch_;
};

} // namespace vset

#endif
