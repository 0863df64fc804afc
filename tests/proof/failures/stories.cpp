#include "tests/proof/failures/stories.h"

#include <filesystem>
#include <fstream>
#include <numeric>
#include <openssl/evp.h>
#include <stdexcept>
#include <thread>

#include "src/src/fw-update-symbol-manager.h"
#include "tests/proof/process/daemon.h"
#include "tests/proof/process/failing.h"
#include "tests/proof/process/places.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;

const Source kNone;

Television setOf(std::vector<Module> modules)
{
    Television television;
    television.modules = std::move(modules);
    return television;
}

Television factory(Television television)
{
    television.isFactory = true;
    return television;
}

Television unready(Television television)
{
    television.isManagerReady = false;
    return television;
}

Television failingOnce(const char* function, Television television)
{
    television.failures = {function};
    return television;
}

Television forStandby()
{
    return setOf({alpha(kNone, sound(1, "none", 3))});
}

Television forTheUser()
{
    return setOf({alpha(kNone, sound(1, "select", 10)), beta(kNone, sound(0, "none", 3))});
}

// ---- Lines of the trace that several stories have ----

const char* const kEnds = "quick_exit(0)";
const char* const kLaunches = "applaunch_send_launch_request";
const char* const kReboots = "pwrctl_request_reboot(536870924)"; // into the new firmware
const char* const kToldAll = "alpha allUpdateDone";
const char* const kWrites = "alpha doUpdate(\"/opt/usr/apps/appbinarymanager/emps/empAlpha/Alpha.bin\"";
const char* const kWritten = "[ Alpha update succeeded ]";
const char* const kFinished = "fw_update_status\", 3";

// ---- Boots ----

std::vector<Story> boots()
{
    return {
        {"empty",
         "a boot without modules",
         setOf({}),
         {},
         {"firmwareItems empty", "service_initialize fail", kEnds}},
        {"nothing",
         "a boot with nothing to update",
         setOf({alpha(sound(0, "select", 7), sound(-1, "none", 2)), beta(sound(1, "none", 2), broken())}),
         {},
         {"Alpha Firmware isNeedUpdateModules", "Beta Firmware CRC32 different", "no update module item",
          kEnds}},
        {"package",
         "a boot with a package; switched off before its standby",
         forStandby(),
         {"wait:3000"},
         {"ABM_DownloadAppBinary", "Need Update [alpha][empAlpha]", "wait ui or bg", kToldAll, kEnds,
          "!doUpdate("}},
        {"factory",
         "the factory's mode: nothing is offered, no power change counts",
         factory(setOf({alpha(kNone, sound(1, "select", 10)), beta(kNone, sound(1, "none", 3))})),
         {"wait:12000", "jump:600", "power:0>2", "wait:2000"},
         {"Mirrovex or ProductMode", kToldAll, kEnds, "!applaunch_send", "!doUpdate("}},
        {"no-node",
         "every loop node is in use: one more is made",
         failingOnce("PS_Mount", forStandby()),
         {"wait:3000", "jump:600", "power:0>2", "wait:8000", "power:2>0", "power:0>2", "wait:8000"},
         {"Fail PS_Mount", "loop count is 1, mount count is 1", "PS_Mknod(", "PS_Mount(", kWrites, kWritten,
          kEnds},
         false,
         false,
         true},
        {"external",
         "a module that updates itself beside one with a package",
         setOf({{"EXT-delta", "", {}, {}}, alpha(kNone, sound(1, "none", 3))}),
         {"wait:3000", "jump:600", "power:0>2", "wait:8000", "power:2>0", "power:0>2", "wait:8000"},
         {"Not Update Symbol [EXT-delta]", kWrites, "EXT-delta allUpdateDone", kToldAll, kEnds}},
    };
}

// ---- What the user is offered ----

std::vector<Story> offers()
{
    return {
        {"built-in",
         "an image of the system is offered and accepted",
         setOf({alpha(sound(1, "force", 5), kNone)}),
         {"wait:12000", "key:1", "wait:4000", "key:4", "wait:3000"},
         {"\"uitype\", \"force\"", kLaunches, "alpha doUpdate(\"/lib/firmware/ext/Alpha/Alpha.bin\"",
          kWritten, kFinished, kReboots, kEnds}},
        {"accept",
         "the user accepts",
         forTheUser(),
         {"wait:12000", "key:1", "wait:4000", "key:4", "wait:3000"},
         {"working_status\", 1", kLaunches, "fw_update_status\", 2", "pwrctl_lock_state(0, ", kWrites,
          kWritten, kToldAll, "fw_update_progress\", 100", kFinished, "working_status\", 0",
          "pwrctl_unlock_state(0)", kReboots, kEnds}},
        {"decline",
         "the user declines",
         forTheUser(),
         {"wait:12000", "key:4", "wait:5000"},
         {"working_status\", 1", kLaunches, "pralis_ignore_key_changed", "working_status\", 0", kEnds,
          "!doUpdate("}},
        {"force",
         "two modules, one of them forced",
         setOf({alpha(kNone, sound(1, "select", 4)), gamma(kNone, sound(1, "force", 6))}),
         {"wait:12000", "key:1", "wait:4000", "key:4", "wait:3000"},
         {"\"timeinfo\", ", "\"uitype\", \"force\"", kWritten, "[ Gamma update succeeded ]", kReboots,
          kEnds}},
        {"slow",
         "an accepted update that takes its time, and tells less progress than before",
         forTheUser(),
         {"wait:12000", "update:slow", "progress:5000", "key:1", "wait:3000", "progress:42", "wait:8000",
          "key:4", "wait:3000"},
         {kWrites, "alpha getUpdateProgress", "log 6 progress ", "alpha getUpdateProgress", kWritten,
          "fw_update_progress\", 100", kFinished, kReboots, kEnds}},
        {"switched-off",
         "accepted on a set that is not switched on any more",
         forTheUser(),
         {"wait:12000", "level:2", "key:1", "wait:4000", "key:4", "wait:3000"},
         {"Try doUpdateFirmwareUI", kFinished, "working_status\", 0", kToldAll, kEnds, "!doUpdate("}},
        {"time-out-accepted",
         "an accepted update that takes too long",
         forTheUser(),
         {"wait:12000", "update:hang", "key:1", "wait:20000", "key:4", "wait:3000"},
         {kWrites, "sem_post()", "Error : Alpha update timeout", kFinished, "working_status\", 0", kReboots,
          kEnds}},
        {"unready",
         "the package manager does not come up",
         unready(forTheUser()),
         {"wait:70000"},
         {"wait ui or bg", kEnds, "!applaunch_send", "!working_status\", 1"}},
        {"no-ui",
         "the upgrade UI cannot be launched",
         forTheUser(),
         {"launch:fail", "wait:20000"},
         {"launch failed 9", "pralis_ignore_key_changed", "working_status\", 0", kEnds}},
    };
}

// ---- Standby ----

std::vector<Story> standbys()
{
    return {
        {"standby-one",
         "standby with one module",
         forStandby(),
         {"wait:3000", "jump:600", "power:0>2", "wait:8000", "power:2>0", "power:0>2", "wait:8000"},
         {"try fw update", "FlagpostEventDone(\"/tmp/.ignore_resume\")", "pwrctl_lock_state(2, 8000)",
          "sem_wait()", kWrites, kWritten, "PS_Umount", "sem_post()", kToldAll, "pwrctl_unlock_state(2)",
          "FlagpostResetEvent(\"/tmp/.ignore_resume\")", kEnds}},
        {"standby-three",
         "standby with three modules",
         setOf({alpha(kNone, sound(1, "none", 1)), beta(kNone, sound(1, "none", 2)),
                gamma(kNone, sound(1, "none", 0))}),
         {"wait:3000", "jump:600", "power:0>2", "wait:20000", "power:2>0", "power:0>2", "wait:20000"},
         {"pwrctl_lock_state(2, 18000)", "[ Alpha update succeeded ]", "[ Beta update succeeded ]",
          "[ Gamma update succeeded ]", kToldAll, "beta allUpdateDone", "gamma allUpdateDone", kEnds}},
        {"spoilt",
         "a package that becomes another one between its check and its update",
         forStandby(),
         {"wait:3000", "jump:600", "spoil:empAlpha", "power:0>2", "wait:8000", "power:2>0", "power:0>2",
          "wait:8000"},
         {"Need Update [alpha]", "Alpha Firmware crc32 different", kToldAll, kEnds, "!doUpdate("}},
        {"decline-standby",
         "the user declines, and the set goes to standby with another module",
         setOf({alpha(kNone, sound(1, "select", 4)), beta(kNone, sound(1, "none", 2))}),
         {"wait:12000", "key:4", "wait:5000", "jump:600", "power:0>2", "wait:15000", "power:2>0", "power:0>2",
          "wait:15000"},
         {kLaunches, "working_status\", 0", kWrites, kWritten, "[ Beta update succeeded ]", kEnds}},
        {"time-out",
         "standby with an update that takes too long, and one behind it",
         setOf({alpha(kNone, sound(1, "none", 3)), beta(kNone, sound(1, "none", 2))}),
         {"wait:3000", "jump:600", "update:hang", "power:0>2", "wait:1000", "update:ok", "wait:6000", "free",
          "wait:15000"},
         {kWrites, "sem_post()", "Error : Alpha update timeout", kWritten, "[ Beta update succeeded ]",
          kToldAll, kEnds}},
        {"failed-write",
         "a control library that fails to write",
         forStandby(),
         {"wait:3000", "jump:600", "update:fail", "power:0>2", "wait:8000", "power:2>0", "power:0>2",
          "wait:8000"},
         {kWrites, "Firmware doUpdate Fail 7", "sem_post()", kToldAll, kEnds}},
        {"mirroring",
         "a standby while a phone's screen is mirrored, and one afterwards",
         forStandby(),
         {"wait:3000", "mirror:1", "jump:600", "power:0>2", "wait:1000", "power:2>0", "mirror:0", "power:0>2",
          "wait:8000", "power:2>0", "power:0>2", "wait:8000"},
         {"Mirrovex or ProductMode", "Mirrovex or ProductMode", "try fw update", kWrites, kEnds}},
    };
}

// ---- Updates that are cut ----

std::vector<Story> cuts()
{
    return {
        {"power-on",
         "switched on in the middle of the update at standby",
         forStandby(),
         {"wait:3000", "jump:600", "update:slow", "power:0>2", "wait:2000", "power:2>0", "wait:1000"},
         {kWrites, "try reboot", "pwrctl_request_reboot(536870944)", kEnds},
         true},
        {"power-off",
         "switched off in the middle of the update at standby",
         forStandby(),
         {"wait:3000", "jump:600", "update:slow", "power:0>2", "wait:2000", "poweroff", "wait:1000"},
         {kWrites, kToldAll, kEnds},
         true},
        {"early",
         "the power changes in the first ten minutes, in the middle of an accepted update",
         forTheUser(),
         {"wait:12000", "update:slow", "key:1", "wait:3000", "power:0>2", "wait:1000"},
         {kWrites, "try to update from 10 minutes later", "call allupdatedone", kEnds},
         true},
    };
}

// ---- The stick of another program ----

std::vector<Story> sticks()
{
    return {
        {"stick",
         "encrypted images on a stick",
         setOf({alpha(kNone, kNone), beta(kNone, sound(1, "none", 3))}),
         {"wait:3000", "stick:all", "wait:3000"},
         {"verifyFile", "alpha getExpectedTime", "verifyFile", "alpha doUpdate_decryption(", kWritten,
          "beta doUpdate_decryption(", "[ Beta update succeeded ]", kEnds},
         false,
         true},
        {"stick-plain",
         "one module from a plain image on a stick",
         setOf({alpha(kNone, kNone), beta(kNone, sound(1, "none", 3))}),
         {"wait:3000", "stick:alpha", "wait:10000"},
         {"alpha doUpdate(\"/opt/media/USBDriveA1/Alpha/Alpha.bin\"", kWritten, "sem_post()", kEnds},
         false,
         true},
    };
}

std::vector<Story> makeStories()
{
    std::vector<Story> all;
    for (const std::vector<Story>& some : {boots(), offers(), standbys(), cuts(), sticks()}) {
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

} // namespace

const std::vector<Story>& stories()
{
    static const std::vector<Story> all = makeStories();
    return all;
}

const Story& storyNamed(const std::string& name)
{
    for (const Story& story : stories()) {
        if (name == story.name) {
            return story;
        }
    }
    throw std::invalid_argument("there is no story " + name + "; --list names them");
}

// ---- The stick ----

namespace
{

constexpr const char* kStick = "/opt/media/USBDriveA1/";
constexpr size_t kPayload = 12001; // more than one step of the decryption, and no whole number of its blocks
constexpr size_t kTrailer = 534;
constexpr unsigned char kKey[32] = {7};
constexpr unsigned char kVector[16] = {9};

std::string payload()
{
    std::string bytes(kPayload, '\0');
    std::iota(bytes.begin(), bytes.end(), '\1');
    return bytes;
}

std::string encryptedImage()
{
    std::string plain = "1";
    plain.resize(64);
    plain += payload();
    std::string cipher(plain.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    auto* const out = reinterpret_cast<unsigned char*>(cipher.data());
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    int first = 0;
    int last = 0;
    EVP_CipherInit_ex(context, EVP_aes_256_cbc(), nullptr, kKey, kVector, 1);
    EVP_CipherUpdate(context, out, &first, reinterpret_cast<const unsigned char*>(plain.data()),
                     static_cast<int>(plain.size()));
    EVP_CipherFinal_ex(context, out + first, &last);
    EVP_CIPHER_CTX_free(context);
    cipher.resize(static_cast<size_t>(first + last));
    return std::string(kVector, kVector + sizeof kVector) + cipher + std::string(kTrailer, 't');
}

// Another program of the set does it, on a thread of its own; whatever it meets is its own business.
void updateFromStick(const std::string& module)
{
    std::thread([module] {
        try {
            FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
            char context[] = "";
            int seconds = 0;
            if (module != "all") {
                manager.doUpdateFirmware(module, FW_CALLER_USB, context);
            } else if (manager.getFirmwareUpdateTime(kKey, kStick, seconds) == 0) {
                manager.doUpdateUSB(kKey, kStick);
            }
        } catch (const std::exception&) {
            const failing::Aside aside;
            daemon::note("the program with the stick has met an exception");
        }
    }).detach();
}

} // namespace

std::string wholeImage()
{
    uint64_t sum = 0;
    for (const char byte : payload()) {
        sum += static_cast<unsigned char>(byte);
    }
    return std::to_string(kPayload) + ", " + std::to_string(sum);
}

// ---- Sets and events ----

void prepare(const Story& story, const std::string& directory)
{
    Places::write(directory, story.television);
    if (story.areNodesTaken) {
        std::ofstream(directory + "/proc/mounts") << "/dev/loop0 /elsewhere squashfs ro 0 0\n";
    }
    if (!story.hasStick) {
        return;
    }
    for (const char* const firmware : {"Alpha", "Beta"}) {
        const fs::path stick = directory + kStick;
        fs::create_directories(stick / firmware);
        std::ofstream(stick / (std::string(firmware) + ".bin")) << encryptedImage();
        Places::writeSource(stick / firmware, firmware, sound(1, "none", 3));
    }
}

void applyEvent(const std::string& event)
{
    const std::string stick = "stick:";
    if (event.rfind(stick, 0) == 0) {
        updateFromStick(event.substr(stick.size()));
    } else {
        daemon::apply(event);
    }
}

} // namespace proof
