// What the daemon says in its log, as typed events: the one reader of its messages.
//
// Every text of the daemon stands in one table, word for word as its sources have it, so that a text that is
// added or changed there is noticed by a test. No state; any thread.
#ifndef COMMON_DAEMON_DAEMON_EVENTS_H
#define COMMON_DAEMON_DAEMON_EVENTS_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "common/daemon/log-record.h"

namespace common
{

enum class DaemonEventKind {
    kDetail, // what only an engineer needs

    // ---- Start and states; values in parentheses ----
    kStarted,
    kInitialised, // the main loop runs
    kState,       // (number)
    kCounted,     // (library): state 5 counts its module; an unattended update does again
    kEnding,

    // ---- Libraries ----
    kExternal,            // (library)
    kNotLoaded,           // (path, reason)
    kNoIdentifier,        // (library)
    kWrongIdentifier,     // (identifier)
    kForbiddenIdentifier, // (identifier)
    kNoFirmwareName,      // (library)

    // ---- Packages and checks ----
    kRequested,     // (identifier)
    kRequestFailed, // (identifier)
    kCheckBegun,    // (firmware, library)
    kMounted,       // (options, package, directory)
    kUnmounted,     // (package)
    // Verdicts of a check:
    kNoImage,         // (path)
    kNoInformation,   // (path)
    kNoPackage,       // (path)
    kBadInformation,  // (path)
    kBadChecksum,     // (firmware)
    kNothingToOffer,  // (firmware, path)
    kVersionsUnknown, // (firmware)
    kNotNewer,        // (image, version)
    kNeeded,          // (library, identifier)
    // Of all checks:
    kNothingPending,
    kPending,

    // ---- Upgrade UI ----
    kLaunchFailed, // (attempt)
    kAnswer,       // (1 accepted, 4 closed)

    // ---- Standby and power ----
    kTooEarly,    // (seconds)
    kHeldBack,    // mirroring, or the factory's mode
    kStandby,     // (previous power state, current)
    kRebootAsked, // (previous power state, current)
    kPowerLocked, // (milliseconds)
    kPowerUnlocked,

    // ---- Updates ----
    kUnattendedBegun,
    kAcceptedBegun,
    kTurnWanted,      // (firmware, seconds)
    kUpdateTried,     // (firmware); an encrypted image comes without it
    kUpdateBegun,     // (firmware)
    kUpdateSucceeded, // (firmware)
    kUpdateFailed,    // (firmware, result, errno, its text)
    kUpdateTimedOut,  // (firmware)
    kUpdateNotNeeded, // (firmware)
    kProgress,        // (percent)

    // ---- Encrypted images ----
    kSigned,             // (who asks, path)
    kNotSigned,          // (who asks, path)
    kNoSignatureLibrary, // (who asks, reason)
    kRefusedAsNotSigned, // (path, what of it)
    kNoExpectedTime,     // (firmware)
    kImageNotOpened,     // (path)
    kNewerOnStick,       // (firmware, verdict)
    kInstallationFailed, // (firmware): those behind it are not tried
};

struct DaemonEvent {
    DaemonEventKind kind = DaemonEventKind::kDetail;
    std::vector<std::string> values; // what stands in the place of each conversion of the text

    // A value that is a number; 0 when it is none.
    int number(size_t index) const;
};

// Whether the daemon wrote it into the platform's log. Each message is in the trace as well.
bool isOfDaemon(const LogRecord& record);

// A line end behind it is passed over. A text that the daemon does not have is a detail.
DaemonEvent readDaemonMessage(const std::string& message);

// Whether the daemon has a text that the message fits, whatever is put into it.
bool isDaemonText(const std::string& message);
// Whether the daemon complains of something, of whatever kind.
bool isComplaint(const std::string& message);
// Nothing for what is not of the daemon.
std::optional<DaemonEvent> readDaemonEvent(const LogRecord& record);

// ---- States ----

constexpr int kDaemonStates = 22;
// Both nullptr for a number that is no state.
const char* daemonStateName(int state);  // "waiting for the package manager"
const char* daemonStateLabel(int state); // the same in at most 18 characters, for a drawing

// Whether the message shows that the daemon has come to the state. Its state handler shows one at each tick,
// but one that a thread of the daemon sets in the middle of a tick is handled in that tick and may never be
// shown: then a later one of the same way shows it, up to the offer (10) or from its acceptance (11) to the
// closed screen (15), and state 5, which may be the last one, its counting.
bool showsState(const std::string& message, int state);

// ---- The table, for its test ----

struct DaemonText {
    const char* format; // as in the sources
    DaemonEventKind kind;
    // Told apart from a more general text of the sources by what is put into that.
    bool isRefined = false;
};

extern const DaemonText kDaemonTexts[];
extern const size_t kDaemonTextCount;

} // namespace common

#endif
