// A television for one test: a virtual set of its own, with the daemon as it is installed, seen and handled
// from outside as a person would: through its directories, its system bus, its log, its clock and its power.
//
// Everything that is waited for has kPatience to happen; then the wait throws std::runtime_error with the end
// of the set's log, and the test fails with that. One thread.
#ifndef TESTS_SERVICE_SUPPORT_TELEVISION_H
#define TESTS_SERVICE_SUPPORT_TELEVISION_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <json/json.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"
#include "vset/client/control-client.h"
#include "vset/television/process.h"

namespace service
{

namespace fs = std::filesystem;
using tarnwick::kNormal;
using tarnwick::kStandby;
using tarnwick::Message;
using tarnwick::Output;
using vset::kPatience;
using vset::Process;
using vset::run;
using vset::runOrThrow;

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

fs::path vsetProgram();

class Television : public tarnwick::Television
{
public:
    Television();

    // ---- Contents: any time ----

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

    // ---- Power of the whole set ----

    // On, with all services but without the daemon; reboots and power-offs are only recorded.
    void switchOn(unsigned int loopNodes = 8) { switchOnAlone(loopNodes); }
    // On as a television: the daemon starts by itself, reboots and power-offs are carried out.
    void switchOnWhole() { tarnwick::Television::switchOn(); }
    void switchOff()
    {
        platform_.reset();
        tarnwick::Television::switchOff();
    }

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

    // ---- Other programs of the set ----

    // Ends one of the set's own services, by its program's name.
    void killService(const std::string& name);
    // The same, and it is started again so long (of this machine's time) afterwards.
    void crashService(const std::string& name, std::chrono::milliseconds downtime);
    // Until it has been started again: the bus name has an owner, and another one than before the crash.
    void waitForService(const std::string& busName, const std::string& ownerBefore);
    // The connection that owns a bus name; empty for none.
    std::string ownerOf(const std::string& busName);
    // The update semaphore, handled by another program: "take", "give", "show". As the daemon's user, or as
    // root.
    Output semaphore(const std::string& verb, bool asRoot = false);

private:
    std::optional<vset::ControlClient> platform_;
    std::map<std::string, fs::file_time_type> installed_; // chips, and when
};

} // namespace service

#endif
