// A temporary virtual set, filled and handled from outside: `vset` does the work, as it would for a person at
// the terminal.
//
// The set ends and its directory is removed with the object, whatever happens to this process; only a SIGKILL
// leaves the directory. One thread, one set at a time. Errors are Failure. Every wait ends with Interrupted
// at SIGINT, SIGTERM and SIGHUP, and with PowerWasCut when the set was switched on to lose its power.
#ifndef TOOLS_FWMOD_TRIAL_SET_H
#define TOOLS_FWMOD_TRIAL_SET_H

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <json/json.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/daemon-events.h"
#include "tools/fwmod/interruption.h"
#include "vset/client/control-client.h"
#include "vset/story/story-teller.h"

namespace fwmod
{

// what(): "the power was cut at write 90 (pwrite64 to /var/lib/hardware/tuner)".
struct PowerWasCut : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class TrialSet
{
public:
    // `story` gets what happens in the set, a line at a time.
    TrialSet(bool isRootless, std::FILE* story);
    ~TrialSet();
    TrialSet(const TrialSet&) = delete;
    TrialSet& operator=(const TrialSet&) = delete;

    const std::filesystem::path& path() const { return path_; }
    void keep() { isKept_ = true; }

    // ---- Contents, by the set's own absolute paths ----

    std::filesystem::path file(const std::string& inside) const;
    // A file, or a directory with all it holds, as `name` into a directory of the set.
    void add(const std::filesystem::path& from, const std::string& directory, const std::string& name);
    // The content of a directory; the daemon may write it.
    void addHardware(const std::filesystem::path& from);

    // ---- Power ----

    // As a television: the daemon runs. `cutAtWrite`: see `vset run --cut-power-at-write`.
    void switchOn(std::optional<unsigned int> cutAtWrite = std::nullopt);
    void switchOff(); // with the power-off event; nothing when it is off
    // On for a command alone, without the daemon; returns its exit status.
    int runAlone(const std::vector<std::string>& command, std::optional<unsigned int> cutAtWrite);
    // Writes to hardware of the daemon, or the command, once it has ended without a cut.
    std::optional<unsigned int> writes() const;

    // ---- A running set ----

    void setClockRate(double rate);
    void jumpClock(unsigned int seconds);
    // Something that is done with the set's platform.
    void act(const std::function<void(const vset::ControlClient&)>& action);
    Json::Value snapshot();                  // of the platform
    Json::Value console(const char* method); // what a method of its console tells
    struct Output {
        int status;
        std::string text;   // of standard output
        std::string errors; // of standard error
    };
    Output run(const std::vector<std::string>& command);

    // The daemon's records since the set was switched on, or since forget().
    const std::vector<vset::LogRecord>& records() const { return records_; }
    bool said(common::DaemonEventKind kind) const;
    bool hasReached(int state) const; // the daemon has shown this state
    void forget();                    // before the set reboots by itself
    // How the daemon ended since then, "tarnwick ended with status 0"; nothing while it runs.
    std::optional<std::string> daemonEnd() const;

    // Until it is so; `what` ends the sentence "waited in vain for ...". `limit` is this PC's time.
    void waitFor(const std::string& what, std::chrono::seconds limit, const std::function<bool()>& isSo);

private:
    void start(std::vector<std::string> arguments, std::optional<unsigned int> cutAtWrite);
    void end();
    void listen();
    bool readLauncher();
    bool isOn();
    [[noreturn]] void failOnEnd();
    std::string lastWords() const;

    std::filesystem::path vset_;
    std::filesystem::path path_;
    bool isRootless_;
    bool isKept_ = false;
    std::FILE* story_;
    vset::StoryTeller teller_;
    std::unique_ptr<vset::LogReader> log_;
    std::vector<vset::LogRecord> records_;
    std::vector<common::DaemonEvent> events_; // what each of them says
    std::optional<vset::ControlClient> platform_;

    pid_t launcher_ = 0; // `vset run`
    int launcherStatus_ = 0;
    int launcherOutput_ = -1;
    std::string unfinishedLine_;
    std::vector<std::string> launcherLines_;
    std::size_t firstLine_ = 0; // since forget()
};

} // namespace fwmod

#endif
