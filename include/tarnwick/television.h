// A television of one's own, for tests: a virtual set with the daemon, seen and handled from outside as a
// person would, through its directories, its log, its clock and its power.
//
// For makers of modules and for platform engineers, with any test framework:
//
//     tarnwick::Television tv;
//     tv.putLibrary("build/tuner.so");
//     tv.putHardware("build/images/1.0/hardware");
//     tv.putPackage("build/images/1.1/empTuner.img", tarnwick::Television::Package::kDelivered);
//     tv.switchOn();
//     tv.waitForText("need update item, wait ui or bg fw update");
//     tv.jump(600);
//     tv.setPower(tarnwick::kStandby);
//     EXPECT_EQ(tv.waitForDaemon(), 0);
//
// Paths of the set are absolute, as the set has them. Sizes are in bytes, times in seconds unless they say
// more. Whatever fails throws TelevisionError with a text for a person; what is waited for has 30 seconds of
// this machine's time unless it says more, and the text then has the end of the set's log. The set ends with
// the object, which removes its directory, and with this process; Ctrl-C at the terminal is this process's to
// answer. One thread at a time; several televisions may be used at once.
//
// Link to Tarnwick::television (find_package(TarnwickTelevision)). The set is run by the `vset` of the same
// kit.
#ifndef TARNWICK_TELEVISION_H
#define TARNWICK_TELEVISION_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarnwick
{

class TelevisionError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A set that was switched on to lose its power has lost it: out of whatever was called or waited for then.
// what(): "the power was cut at write 90 (pwrite64 to /var/lib/hardware/tuner)".
class PowerWasCut : public TelevisionError
{
public:
    using TelevisionError::TelevisionError;
};

// Power states of a set; other numbers up to 255 are states too.
constexpr int kNormal = 0;
constexpr int kStandby = 2;

// What a program said, and its exit status: 128 + n after signal n.
struct Output {
    int status = 0;
    std::string text;   // of standard output
    std::string errors; // of standard error
};

// How a program ended.
struct End {
    int status = 0; // as in Output
    bool isBySignal = false;
};

// A record of the daemon in the platform's log.
struct Message {
    int priority = 0;   // 3 debug, 4 info, 5 warning, 6 error
    std::string text;   // without the prefix that tells file, function and line
    int process = 0;    // as the set numbers processes
    std::string thread; // its name
    int64_t time = 0;   // of the set, microseconds since 1970 UTC
};

// How a set is made.
struct Making {
    std::filesystem::path vset = {};      // the program; empty: that of the kit this library belongs to
    std::filesystem::path directory = {}; // where; empty: a new one among the temporary files
    bool isRootless = false;              // one user for all, as a plain user has it anyhow
    bool isBare = false;                  // without the daemon: for programs that run alone
};

// How a program runs alone in a set.
struct Alone {
    std::optional<unsigned int> cutAtWrite = std::nullopt; // as switchOn() has it, of the program's writes
    std::optional<double> clockRate = std::nullopt;        // none: it runs on this machine's clock
    std::optional<double> limit = 30;                      // seconds; none: as long as it takes
    std::function<void(const std::string&)> takeLine = {}; // of its standard output, as it is written
};

class Television
{
public:
    // Makes the set, switched off.
    explicit Television(const Making& making);
    explicit Television(const std::filesystem::path& vset = {});
    ~Television();
    Television(const Television&) = delete;
    Television& operator=(const Television&) = delete;

    // The set's directory.
    const std::filesystem::path& set() const;
    // Leaves the directory for a look around.
    void keep();

    // ---- Contents: on or off. What a running set may read is replaced whole ----

    enum class Controls { kProduct, kSystem }; // /prd/usr/fwupdate/controls, /usr/fwupdate/controls
    enum class Package { kFeed, kDelivered };  // for the package service to fetch, or in place

    // Where a path of the set lies on this machine; not what only exists while it is on (/dev, /proc, /etc).
    std::filesystem::path outside(const std::string& path) const;
    // Replaces the file, making missing directories.
    void write(const std::string& path, const std::string& content) const;
    // Empty when there is none.
    std::string read(const std::string& path) const;
    bool exists(const std::string& path) const; // a dangling link does, too

    // A file, or a directory with all it holds, into a directory of the set, in the place of what is called
    // so there; under its own name when none is given. It belongs to whom that directory belongs to.
    void put(const std::filesystem::path& from, const std::string& directory,
             const std::string& name = "") const;
    void putLibrary(const std::filesystem::path& file, Controls where = Controls::kProduct) const;
    void putPackage(const std::filesystem::path& file, Package where = Package::kFeed) const;
    void putFirmware(const std::filesystem::path& directory) const; // NAME, with NAME.bin and info.json
    void putHardware(const std::filesystem::path& chips) const;     // a file, or a directory of them
    void putStick(const std::filesystem::path& directory) const;
    void removeStick() const;
    void putSigningKey(const std::filesystem::path& file) const; // a public key in PEM form

    // ---- Power of the whole set ----

    // As a television: the daemon starts by itself, reboots and power-offs are carried out. With `cutAtWrite`
    // the power goes when the daemon is about to write to hardware for that time, counted from 1.
    void switchOn(std::optional<unsigned int> cutAtWrite = std::nullopt);
    // With all services but without the daemon; reboots and power-offs are only recorded. `loopNodes`: loop
    // devices that are there at first.
    void switchOnAlone(unsigned int loopNodes = 8);
    // On for a program alone, with all services and without the daemon, for as long as it runs; its exit
    // status. Reboots and power-offs are only recorded. It is found in the set's PATH.
    int runAlone(const std::vector<std::string>& words, const Alone& how = {});
    // As a person does, with the power-off event; waits until the last power lock is gone and the set is off.
    // Nothing when it is off.
    void powerOff();
    void switchOff(); // at once and in good order, without the event; nothing when it is off
    void cutPower();  // at once: nothing of the set gets to do anything any more
    bool isOn();
    // The set's end by itself; the exit status of `vset run`: 0 after a power-off, 3 after a cut at a write.
    int waitForEnd();
    // As a person, or a program of the set, asks for it.
    void reboot();
    void waitForBoot(int number); // 1 is the one of switchOn()
    int boots() const;
    // Writes to hardware of the daemon, or the program, in the newest boot of a set whose power was to be cut
    // at one and was not; nothing while it may write on.
    std::optional<unsigned int> writes() const;
    // What the launcher of the set, and a program that runs alone, wrote to standard error.
    std::string launcherOutput() const;

    // ---- The daemon ----

    // In a set that was switched on alone: as an ordinary user that can gain no privilege.
    void startDaemon();
    bool daemonRuns();
    int waitForDaemon(); // exit status; of the newest boot
    void killDaemon();   // SIGKILL, and waits for its end
    // Of the newest boot; nothing while it runs.
    std::optional<End> daemonEnd() const;
    // /proc/PID/status of a daemon that startDaemon() has started.
    std::string daemonStatus() const;
    // What the daemon and its libraries wrote to standard error.
    std::string daemonOutput() const;

    // ---- The log: the daemon's records in the platform's log, of all its runs ----

    std::vector<Message> messages() const;
    std::vector<Message> messagesOfBoot() const; // of the newest one
    std::vector<std::string> texts() const;
    bool said(const std::string& text) const { return countOf(text) > 0; } // the whole text
    size_t countOf(const std::string& text) const;
    void waitForText(const std::string& text, size_t count = 1);
    void waitForState(int state); // until the daemon has come to it
    void clearLog();              // forgets what was logged so far
    // The end of it, for the person who reads a failure.
    std::string logTail() const;

    // What happens from now on is told while this object waits for something: in sentences, with the set's
    // seconds since the daemon's start. `tell` uses no television.
    void tellStory(std::function<void(const std::string& line)> tell);

    // ---- Platform ----

    void setPower(int state);
    int power();
    size_t powerLocks(); // that are held
    int setting(const std::string& key);
    void setSetting(const std::string& key, int value);
    // `call` as its header declares it gives `result` instead of doing anything, so often; negative: until
    // resetFaults().
    void setFault(const std::string& call, int result, int count = -1);
    void resetFaults();
    // The next upgrade UI accepts, declines ("accept", "decline", "close", "ignore") so much later.
    void answerUpgradeUi(const std::string& answer, unsigned int afterMilliseconds = 0);
    // What it shows: "offer", "finished" ...; empty when it is not on the screen.
    std::string upgradeUiView();
    void clickUpgradeUi(const std::string& button); // "accept", "decline", "close"
    // Percent of its write, as the module's control library itself tells it to another process; nothing when
    // it tells none, or there is no such module.
    std::optional<int> progress(const std::string& module);

    // ---- Clock of the set ----

    void setClockRate(double rate); // its seconds per second of this machine
    void jump(double seconds);
    // Puts the clock to so many seconds after the daemon's start, and nearly stops it, so that nothing that
    // this machine does in between moves it by more than milliseconds.
    void freezeAfterStart(double seconds);

    // ---- Other programs ----

    // A program in the set, as its root.
    Output execute(const std::vector<std::string>& words) const;
    // A command of `vset` about this set: its words before and behind the set.
    Output command(const std::string& name, const std::vector<std::string>& words = {}) const;
    // The set's mount table, lines that begin with /dev/loop.
    std::vector<std::string> loopMounts() const;

    // ---- Waiting ----

    // Until it is so. `what` ends the sentence "this did not happen: ".
    void waitUntil(const std::function<bool()>& isSo, const std::string& what, double limit = 30);
    // Is called some twenty times a second while this object waits for something, or for a program. What it
    // throws ends the wait: the way for an interruption.
    void watchWaits(std::function<void()> look);

private:
    struct Inside;
    std::unique_ptr<Inside> inside_;
};

} // namespace tarnwick

#endif
