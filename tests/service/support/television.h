// A television for one test: a virtual set of its own, with the daemon as it is installed, seen and handled
// from outside as a person would: through its directories, its system bus, its log, its clock and its power.
//
// Everything that is waited for has kPatience to happen; then the wait throws std::runtime_error with the end
// of the set's log, and the test fails with that. One thread.
#ifndef SERVICE_TELEVISION_H
#define SERVICE_TELEVISION_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "control-client.h"
#include "process.h"

namespace service
{

namespace fs = std::filesystem;

// Names that the daemon and the set share.
constexpr const char* kListFile = "/tmp/fwupdate-off-list.txt";
constexpr const char* kDownloadFlag = "/tmp/.fw_download_ready";
constexpr const char* kContentKeyFile = "/root/usb.key";
constexpr const char* kStick = "/opt/media/USBDriveA"; // what is in the slot
constexpr const char* kResumeFlag = "/tmp/.ignore_resume";
constexpr const char* kMirroringKey = "memory/menu/network/screenmirroring/smsrc_status";
constexpr const char* kStatusKey = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";
constexpr const char* kBusName = "org.pellor.tv.tarnwick";
constexpr int kNormal = 0;
constexpr int kStandby = 2;

// A record of the platform log, as the daemon wrote it there.
struct Message {
    int priority = 0;   // 3 debug, 4 info, 5 warning, 6 error
    std::string text;   // without the prefix that tells file, function and line
    int process = 0;    // as the set numbers processes
    std::string thread; // its name
    int64_t time = 0;   // of the set, microseconds since 1970 UTC
};

// The files of a package or of a directory of built-in images, by name.
using Files = std::map<std::string, std::string>;

// "info.json" for an image, as a maker writes it.
struct Information {
    std::string version = "1.1";
    int expectedSeconds = 5;
    std::string uiUse = "none";
};
unsigned int imageChecksum(const std::string& image);
std::string formatInformation(const Information& information, const std::string& image);

class Television
{
public:
    enum class Controls { kProduct, kSystem }; // /prd/usr/fwupdate/controls, /usr/fwupdate/controls

    // Makes the set, switched off.
    Television();
    // Switches it off and removes it.
    ~Television();
    Television(const Television&) = delete;
    Television& operator=(const Television&) = delete;

    // ---- Contents: any time ----

    // Where a path of the set lies on this machine; not what only exists while it is on (/dev, /proc, /etc).
    fs::path outside(const std::string& path) const;
    // Replaces the file, making missing directories.
    void write(const std::string& path, const std::string& content);
    // Empty when there is none.
    std::string read(const std::string& path) const;
    bool exists(const std::string& path) const; // a dangling link does, too

    // An example module with its hardware, which has firmware 1.0 on it: "tuner", "panel" or "EXT-soundbar".
    void installExample(const std::string& library);
    // What an example's hardware runs, without the image file's first line; throws when it is damaged.
    std::vector<unsigned char> activeFirmware(const std::string& chip) const;
    std::string activeVersion(const std::string& chip) const;
    // Whether the file of an example's hardware was written to since installExample made it.
    bool isChanged(const std::string& path) const;
    // What an example's hardware has when that version is on it.
    static std::vector<unsigned char> exampleFirmware(const std::string& firmwareName,
                                                      const std::string& version);
    static fs::path examplePackage(const std::string& identifier, const std::string& version);

    // A module whose library follows a script, see control-libraries/scripted.cpp; `variant` is its file.
    void installScripted(const std::string& name, const Json::Value& script = Json::objectValue,
                         Controls where = Controls::kProduct, const std::string& variant = "scripted");
    // What the scripted libraries were asked, in order: "NAME function(arguments)".
    std::vector<std::string> calls() const;
    // The image that the scripted module's update has written; empty before.
    std::string writtenImage(const std::string& name) const
    {
        return read("/var/lib/hardware/" + name + ".firmware");
    }

    // A package with these files: in its place, as delivered at an earlier time, or where the package service
    // fetches it from. The file form copies a finished package.
    void deliver(const std::string& identifier, const Files& files);
    void deliverFile(const std::string& identifier, const fs::path& package);
    void feed(const std::string& identifier, const Files& files);
    void feedFile(const std::string& identifier, const fs::path& package);
    static std::string packagePath(const std::string& identifier);
    static std::string mountPoint(const std::string& identifier);
    // NAME.bin and info.json of a scripted module, and both delivered as its package.
    static Files packageFiles(const std::string& name, const Information& information = {});
    void deliverFor(const std::string& name, const Information& information = {});
    // The image in packageFiles.
    static std::string imageOf(const std::string& name);

    // ---- Encrypted images ----

    // The set judges images from now on, and trusts the maker's test key. While the set is off.
    void installSignatureLibrary();
    // A stick in the slot with an image of an example's firmware, signed with a test key ("maker" or
    // "stranger"); its content key is in kContentKeyFile.
    void insertStick(const std::string& firmwareName, const std::string& version,
                     const std::string& signer = "maker");
    void removeStick();

    // ---- Power of the whole set ----

    // On, with all services but without the daemon; reboots and power-offs are only recorded.
    void switchOn(unsigned int loopNodes = 8);
    // On as a television: the daemon starts by itself, reboots and power-offs are carried out.
    void switchOnWhole();
    void switchOff();
    // The set's end by itself; its exit status.
    int waitForEnd();

    // ---- The daemon, in a set that was switched on without ----

    // Starts /usr/bin/tarnwick as an ordinary user that can gain no privilege.
    void startDaemon();
    bool daemonRuns();
    int waitForDaemon();              // exit status, 128 + n when signal n ended it
    void killDaemon();                // SIGKILL, and waits for its end
    std::string daemonStatus() const; // /proc/PID/status
    // What the daemon and its libraries wrote to standard error, GLib's complaints for example.
    std::string daemonOutput() const;

    // ---- The log ----

    // The daemon's records in the platform log, of all its runs.
    std::vector<Message> messages() const;
    std::vector<std::string> texts() const;
    bool said(const std::string& text) const { return countOf(text) > 0; }
    size_t countOf(const std::string& text) const;
    // Forgets what was logged so far. While the set is off.
    void clearLog();
    void waitForText(const std::string& text, size_t count = 1);
    // Until the state handler has shown that state.
    void waitForState(int state) { waitForText(std::to_string(state)); }

    // ---- Platform ----

    // All that is to be seen and set of it. After a reboot the connection has to be made anew.
    const vset::ControlClient& platform();
    void reconnect() { platform_.reset(); }
    void setPower(int state) { platform().setPowerState(state); }
    // Waits until the platform's state is so.
    void waitForPlatform(const std::function<bool(const Json::Value&)>& isSo, const std::string& what);
    bool ownsBusName(const std::string& name);
    // As any service of the set may.
    void raiseFlag(const std::string& flag);

    // ---- Clock of the set ----

    void setClockRate(double rate);
    void jump(double seconds);
    // Puts the clock to so many seconds after the daemon wrote "service initialize", and nearly stops it, so
    // that nothing that this machine does in between moves it by more than milliseconds.
    void freezeAfterStart(double seconds);

    // ---- Other programs of the set ----

    // A command of `vset` about this set, for a person at the terminal: its words before and behind the set.
    Output command(const std::string& name, const std::vector<std::string>& words = {}) const;

    // Ends one of the set's own services, by its program's name.
    void killService(const std::string& name);
    // The same, and it is started again so long (of this machine's time) afterwards.
    void crashService(const std::string& name, std::chrono::milliseconds downtime);
    // Until it has been started again: the bus name has an owner, and another one than before the crash.
    void waitForService(const std::string& busName, const std::string& ownerBefore);
    // The connection that owns a bus name; empty for none.
    std::string ownerOf(const std::string& busName);
    Output execute(const std::vector<std::string>& command);
    // The update semaphore, handled by another program: "take", "give", "show". As the daemon's user, or as
    // root.
    Output semaphore(const std::string& verb, bool asRoot = false);
    // The set's mount table, lines that begin with /dev/loop.
    std::vector<std::string> loopMounts();

    // Waits until it is so. `what` ends the sentence "this did not happen: ".
    void waitUntil(const std::function<bool()>& isSo, const std::string& what);

    // The end of the set's log, for the person who reads a failure.
    std::string logTail() const;

private:
    void start(const std::vector<std::string>& arguments);
    int64_t timeOf(const std::string& text) const;

    fs::path set_;
    std::unique_ptr<Process> power_;  // `vset run`
    std::unique_ptr<Process> daemon_; // `vset exec`, whose child is the daemon
    std::optional<vset::ControlClient> platform_;
    std::map<std::string, fs::file_time_type> installed_; // chips, and when
};

} // namespace service

#endif
