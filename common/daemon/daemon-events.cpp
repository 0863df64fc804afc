// The table of the daemon's texts, and what each one tells.
#include "common/daemon/daemon-events.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "src/fw-update-common.h"

namespace common
{

// ---- The texts ----

// The first one that a message fits is it: what is more special stands before what is more general.
const DaemonText kDaemonTexts[] = {
    // What carries the story, in the order of a boot and an update.
    {"service initialize", DaemonEventKind::kStarted},
    {"g_main loop running in main thread!\n", DaemonEventKind::kInitialised},
    {"service finalize", DaemonEventKind::kEnding},
    {"Not Update Symbol [%s]", DaemonEventKind::kExternal},
    {"Error: dlsym libfile: %s error: %s\n", DaemonEventKind::kNotLoaded},
    {"Error: EMPID is empty.(%s)", DaemonEventKind::kNoIdentifier},
    {"Error: EMPID is Wrong (%s)", DaemonEventKind::kWrongIdentifier},
    {"Error: use EMPID only English and numbers. %s", DaemonEventKind::kForbiddenIdentifier},
    {"Request (%s) emp download", DaemonEventKind::kRequested},
    {"Error: EMP ABM_DownloadAppBinary fail.(%s)", DaemonEventKind::kRequestFailed},
    {"%s Firmware isNeedUpdateModules Try(%s)", DaemonEventKind::kCheckBegun},
    {"EMP UMount Success %s", DaemonEventKind::kUnmounted},
    {"Error: Firmware binary file no exist (%s)", DaemonEventKind::kNoImage},
    {"Error: Firmware json file no exist (%s)", DaemonEventKind::kNoInformation},
    {"Error: file no exist (%s)", DaemonEventKind::kNoPackage},
    {"Error: json loadInformation fail.(%s)\n", DaemonEventKind::kBadInformation},
    {"Error: %s Firmware CRC32 different", DaemonEventKind::kBadChecksum},
    {"Error: %s Firmware crc32 different", DaemonEventKind::kBadChecksum},
    {"Error: %s Firmware does not have proper UI information in %s", DaemonEventKind::kNothingToOffer},
    {"Error: %s Firmware CheckVersion Fail", DaemonEventKind::kVersionsUnknown},
    {"Error: %s not need update, version is %s", DaemonEventKind::kNotNewer},
    {"Need Update [%s][%s]", DaemonEventKind::kNeeded},
    {"no update module item!\n", DaemonEventKind::kNothingPending},
    {"need update item, wait ui or bg fw update\n", DaemonEventKind::kPending},
    {"launch failed %d", DaemonEventKind::kLaunchFailed},
    {"fwstatus_ui_cb val %d", DaemonEventKind::kAnswer},
    {"%llu seconds since the service started, try to update from 10 minutes later",
     DaemonEventKind::kTooEarly},
    {"Mirrovex or ProductMode, not try update", DaemonEventKind::kHeldBack},
    {"prev_state [%d] cur_state[%d] try fw update", DaemonEventKind::kStandby},
    {"prev_state [%d] cur_state[%d] try reboot", DaemonEventKind::kRebootAsked},
    {"about total update time is %d ms, Lock the power during about that time.",
     DaemonEventKind::kPowerLocked},
    {"pwrctl_unlock_state done", DaemonEventKind::kPowerUnlocked},
    {"Try doUpdateFirmwareAll", DaemonEventKind::kUnattendedBegun},
    {"Try doUpdateFirmwareUI", DaemonEventKind::kAcceptedBegun},
    {"%s update time %d sec", DaemonEventKind::kTurnWanted},
    {"========== [ %s update start ] ==========", DaemonEventKind::kUpdateBegun},
    {"========== [ %s update succeeded ] ==========", DaemonEventKind::kUpdateSucceeded},
    {"Error: %s Firmware doUpdate Fail %d (%d:%m)", DaemonEventKind::kUpdateFailed},
    {"progress %d", DaemonEventKind::kProgress},
    {"[zor][%s] the file is signed successfully : %s\n", DaemonEventKind::kSigned},
    {"[zor][%s] the file is NOT signed!! : %s\n", DaemonEventKind::kNotSigned},
    {"%s update timeout", DaemonEventKind::kUpdateTimedOut, true},
    {"PsMntCmd:[-o %s %s %s]", DaemonEventKind::kMounted, true},
    // What only an engineer needs; the general texts last.
    {"Parent\t: [sem_open] Failed\n", DaemonEventKind::kDetail},
    {"Failed to set app id for launching popup app", DaemonEventKind::kDetail},
    {"pralis node is null", DaemonEventKind::kDetail},
    {"Failed to read pralis [%d]", DaemonEventKind::kDetail},
    {"Failed to save pralis [%d]", DaemonEventKind::kDetail},
    {"Error, fail in registering for fwstatus_UI_cb ", DaemonEventKind::kDetail},
    {"Source file or dest dir is empty.", DaemonEventKind::kDetail},
    {"srcFile[%s] is not exist.", DaemonEventKind::kDetail},
    {"Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]", DaemonEventKind::kDetail},
    {"Input umount dir is empty.", DaemonEventKind::kDetail},
    {"Umount dir[%s] is invalid.", DaemonEventKind::kDetail},
    {"Umount dir[%s] successfully.", DaemonEventKind::kDetail},
    {"Error(iRet1=%d, iRet2=%d) while unmounitng [%s]", DaemonEventKind::kDetail},
    {"Failed to umount[%s], error[%s].", DaemonEventKind::kDetail},
    {"PsMntCmd:[%s]", DaemonEventKind::kDetail},
    {"Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]", DaemonEventKind::kDetail},
    {"loop count is %d, mount count is %d", DaemonEventKind::kDetail},
    {"PS_Mknod error, retVal: [%d], result: [%d]", DaemonEventKind::kDetail},
    {"firmwareItems empty", DaemonEventKind::kDetail},
    {"Error: getSwVersion fail", DaemonEventKind::kDetail},
    {"En/Decryption Service EXT skip [%s]", DaemonEventKind::kDetail},
    {"File System Exception: %s ", DaemonEventKind::kDetail},
    {"Unable to read SW version from sysprop", DaemonEventKind::kDetail},
    {"getSWVersionString: Wrong string format - lack of dash: %s", DaemonEventKind::kDetail},
    {"SWModel : %s", DaemonEventKind::kDetail},
    {"%s Firmware Expected Time Check Done", DaemonEventKind::kCounted},
    {"There is no update item", DaemonEventKind::kDetail},
    {"pwrctl_unlock_state", DaemonEventKind::kDetail},
    {"Error : %s", DaemonEventKind::kDetail},
    {"Try allDoUpdateDone", DaemonEventKind::kDetail},
    {"allDoUpdateDone Done", DaemonEventKind::kDetail},
    {"pwrctl_lock_state done", DaemonEventKind::kDetail},
    {"lstat error\n", DaemonEventKind::kDetail},
    {"symbolic link is detected\n", DaemonEventKind::kDetail},
    {"fail check_race_condition\n", DaemonEventKind::kDetail},
    {"Task is not running, writeFirmwareUpdateList stop", DaemonEventKind::kDetail},
    {"Need Update [%s] [%d]", DaemonEventKind::kNewerOnStick},
    {"update fail [%s]", DaemonEventKind::kInstallationFailed},
    {"Error: dlsym error: %s\n", DaemonEventKind::kDetail},
    {"Error: json crc read fail error:%s (%s)\n", DaemonEventKind::kDetail},
    {"Warn: json does not have ui_use tag (%s)\n", DaemonEventKind::kDetail},
    {"Error: Usb mount path Not found.", DaemonEventKind::kDetail},
    {"Error: binary file is NULL\n", DaemonEventKind::kDetail},
    {"Error: m_fwName (ret empId)  empty.(%s)", DaemonEventKind::kNoFirmwareName},
    {"%s Firmware Update Try", DaemonEventKind::kUpdateTried},
    {"Error: %s Firmware not need update", DaemonEventKind::kUpdateNotNeeded},
    {"%s Firmware runProcess Try", DaemonEventKind::kDetail},
    {"Error: %s runProcess Fail (%d:%m)", DaemonEventKind::kDetail},
    {"Error: json information load fail", DaemonEventKind::kDetail},
    {"[zor][%s] pHandle Error: %s\n", DaemonEventKind::kNoSignatureLibrary},
    {"[zor][%s] dlsym Error: %s\n", DaemonEventKind::kNoSignatureLibrary},
    {"Error: ckey  is nullptr", DaemonEventKind::kDetail},
    {"Error: image_path is nullptr", DaemonEventKind::kDetail},
    {"Error: %s %sis NOT signed ", DaemonEventKind::kRefusedAsNotSigned},
    {"Error: iv is worng", DaemonEventKind::kDetail},
    {"Error: %s getExpectedTime Fail", DaemonEventKind::kNoExpectedTime},
    {"Error: Decryption data is null", DaemonEventKind::kDetail},
    {"Error: Firmware EMP Mount Fail.(%s)", DaemonEventKind::kDetail},
    {"Error: Firmware EMP UMount Fail.(%s)", DaemonEventKind::kDetail},
    {"Failed get_current_time", DaemonEventKind::kDetail},
    {"call allupdatedone only when power is off cur_power_state[%d]", DaemonEventKind::kDetail},
    {"[%s] pralis get value : [%d]", DaemonEventKind::kDetail},
    {"start work (%s)!!", DaemonEventKind::kDetail},
    {"Error: SymbolManager load fail!\n", DaemonEventKind::kDetail},
    {"Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n", DaemonEventKind::kDetail},
    {"Error: pwrctl_subscribe_state_changed_event() failed", DaemonEventKind::kDetail},
    {"Error: pwrctl_subscribe_poweroff_event() failed", DaemonEventKind::kDetail},
    {"Error: pralis_notify_key_changed(SMSRC_STATUS) failed", DaemonEventKind::kDetail},
    {"Error: service_initialize fail!\n", DaemonEventKind::kDetail},
    {"Error: %s open fail", DaemonEventKind::kImageNotOpened, true},
    {"Error: %s file open", DaemonEventKind::kImageNotOpened, true},
    {"Error: %s %s", DaemonEventKind::kDetail},
    {"%d", DaemonEventKind::kState},
    {"%s", DaemonEventKind::kDetail},
};
const size_t kDaemonTextCount = std::size(kDaemonTexts);

// ---- Reading ----

namespace
{

using Values = std::vector<std::string_view>;

bool isWholeNumber(std::string_view text)
{
    const bool isSigned = !text.empty() && text.front() == '-';
    const std::string_view digits = text.substr(isSigned ? 1 : 0);
    return !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
}

bool endsWith(std::string_view text, std::string_view end)
{
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool fits(std::string_view format, std::string_view message, Values& values);

// With the value of so many characters, and what follows it.
bool fitsBehind(std::string_view rest, std::string_view message, std::size_t length, bool isNumber,
                Values& values)
{
    const std::string_view value = message.substr(0, length);
    if (isNumber && !isWholeNumber(value)) {
        return false;
    }
    values.push_back(value);
    if (fits(rest, message.substr(length), values)) {
        return true;
    }
    values.pop_back();
    return false;
}

// The conversions of the daemon's texts: numbers (%d, %llu) and texts (%s, %m), which take as much as they
// can. Where a value may end is looked for, not tried: anybody may log a text of any length.
bool fits(std::string_view format, std::string_view message, Values& values)
{
    const size_t percent = format.find('%');
    const std::string_view literal = format.substr(0, percent);
    if (message.substr(0, literal.size()) != literal) {
        return false;
    }
    message.remove_prefix(literal.size());
    if (percent == std::string_view::npos) {
        return message.empty();
    }
    const bool isLong = format.substr(percent, 4) == "%llu";
    const bool isNumber = isLong || format[percent + 1] == 'd';
    const std::string_view rest = format.substr(percent + (isLong ? 4 : 2));
    const std::string_view next = rest.substr(0, rest.find('%'));
    if (next.size() == rest.size()) { // the last value: what follows it is the message's end
        return endsWith(message, next) &&
               fitsBehind(rest, message, message.size() - next.size(), isNumber, values);
    }
    size_t length = message.rfind(next);
    while (length != std::string_view::npos) {
        if (fitsBehind(rest, message, length, isNumber, values)) {
            return true;
        }
        length = length == 0 ? std::string_view::npos : message.rfind(next, length - 1);
    }
    return false;
}

bool fits(const DaemonText& text, const std::string& message, Values& values)
{
    return fits(withoutLineEnd(text.format), withoutLineEnd(message), values);
}

} // namespace

int DaemonEvent::number(size_t index) const
{
    return index < values.size() ? std::atoi(values[index].c_str()) : 0;
}

bool isOfDaemon(const LogRecord& record)
{
    return record.buffer == LogBuffer::System && record.tag == "FWUPDATE";
}

bool isDaemonText(const std::string& message)
{
    const auto isGeneral = [](const DaemonText& text) { // which any message would fit
        return strcmp(text.format, "%s") == 0 || strcmp(text.format, "Error: %s %s") == 0;
    };
    return std::any_of(std::begin(kDaemonTexts), std::end(kDaemonTexts), [&](const DaemonText& text) {
        Values values;
        return !isGeneral(text) && fits(text, message, values);
    });
}

DaemonEvent readDaemonMessage(const std::string& message)
{
    DaemonEvent event;
    for (const DaemonText& text : kDaemonTexts) {
        Values values;
        if (fits(text, message, values)) {
            event.kind = text.kind;
            event.values.assign(values.begin(), values.end());
            break;
        }
    }
    return event;
}

bool isComplaint(const std::string& message)
{
    return message.rfind("Error", 0) == 0;
}

std::optional<DaemonEvent> readDaemonEvent(const LogRecord& record)
{
    return isOfDaemon(record) ? std::optional(readDaemonMessage(record.message)) : std::nullopt;
}

// ---- States ----

namespace
{

struct StateWords {
    const char* name;
    const char* label;
};

constexpr std::array<StateWords, kDaemonStates> kStates = {{
    {"initialising", "initialising"},
    {"initialised", "initialised"},
    {"requesting packages", "asking packages"},
    {"packages requested", "packages requested"},
    {"checking modules", "checking modules"},
    {"modules checked", "modules checked"},
    {"waiting for the package manager", "package mgr wait"},
    {"package manager checked", "may be offered?"},
    {"launching the upgrade UI", "launching the UI"},
    {"launch attempts ended", "launch done"},
    {"upgrade UI shown, waiting for the user", "offer shown"},
    {"accepted", "accepted"},
    {"updating", "updating"},
    {"update done", "update done"},
    {"waiting for the UI to close", "waiting for close"},
    {"upgrade UI closed", "UI closed"},
    {"cancelled", "cancelled"},
    {"finished with the UI", "UI finished"},
    {"reboot to be requested", "reboot"},
    {"reboot requested", "reboot requested"},
    {"finalising", "finalising"},
    {"finalised", "finalised"},
}};
static_assert(kDaemonStates == FWSVC_FINALIZED + 1);

} // namespace

const char* daemonStateName(int state)
{
    return state >= 0 && state < kDaemonStates ? kStates[static_cast<size_t>(state)].name : nullptr;
}

const char* daemonStateLabel(int state)
{
    return state >= 0 && state < kDaemonStates ? kStates[static_cast<size_t>(state)].label : nullptr;
}

bool showsState(const std::string& message, int state)
{
    constexpr int kCounting = 5;
    constexpr int kOffered = 10;
    constexpr int kClosed = 15;
    const DaemonEvent event = readDaemonMessage(message);
    if (event.kind == DaemonEventKind::kCounted) {
        return state == kCounting;
    }
    if (event.kind != DaemonEventKind::kState) {
        return false;
    }
    const int shown = event.number(0);
    const int lastOfWay = state <= kOffered ? kOffered : state <= kClosed ? kClosed : state;
    return shown >= state && shown <= lastOfWay;
}

} // namespace common
