#include "vset/story/narrator.h"

namespace vset
{

namespace
{

using Kind = common::DaemonEventKind;

struct Telling {
    Kind kind;
    const char* sentence; // $1 and so on: the event's values
};

// In the order in which a boot goes through them.
constexpr Telling kTellings[] = {
    {Kind::kStarted, "The daemon starts: it owns its bus name and loads the control libraries."},
    {Kind::kExternal, "  $1 is an external module: it has no package."},
    {Kind::kNotLoaded, "  $1 cannot be loaded: $2"},
    {Kind::kNoIdentifier, "  $1 tells no identifier."},
    {Kind::kWrongIdentifier, "  the identifier $1 has no \"emp\" in it."},
    {Kind::kForbiddenIdentifier, "  the identifier $1 is refused: only ASCII letters and digits."},
    {Kind::kRequested, "It asks the package service for $1."},
    {Kind::kCheckBegun, "It checks $2:"},
    {Kind::kMounted, "  mounts the package $2, read-only"},
    {Kind::kNoImage, "  no image at $1"},
    {Kind::kNoInformation, "  no information file at $1"},
    {Kind::kNoPackage, "  no package at $1"},
    {Kind::kBadInformation, "  $1 is no valid information file"},
    {Kind::kBadChecksum, "  the checksum of $1's image is wrong"},
    {Kind::kNothingToOffer,
     "  the information file of $1 offers nothing on the screen: refused in the system image"},
    {Kind::kVersionsUnknown, "  the control library of $1 cannot compare the versions"},
    {Kind::kNotNewer, "  $1 is not newer: the module has version $2 already"},
    {Kind::kNeeded, "  $1 has a newer, sound image: it goes on the update list."},
    {Kind::kNothingPending, "Nothing is pending."},
    {Kind::kPending, "Something is pending: the daemon stays and waits."},
    {Kind::kLaunchFailed, "The upgrade UI cannot be launched (attempt $1)."},
    {Kind::kTooEarly,
     "The set has been on for $1 seconds, less than ten minutes: the work is left to the next boot."},
    {Kind::kHeldBack, "Mirroring or the factory mode holds updates back."},
    {Kind::kStandby, "The set goes to standby: the unattended update begins."},
    {Kind::kRebootAsked, "The set is switched on during the update: it will reboot."},
    {Kind::kAcceptedBegun, "The update that the user accepted begins."},
    {Kind::kPowerLocked, "  expected to take $1 ms; power is locked on for that time and a margin"},
    {Kind::kTurnWanted, "  $1: takes the update semaphore, and has $2 s and 2 s of margin"},
    {Kind::kUpdateBegun, "  $1: its control library writes the image ..."},
    {Kind::kUpdateSucceeded, "  $1: written."},
    {Kind::kUpdateFailed, "  $1: the write failed with $2."},
    {Kind::kUpdateTimedOut, "  $1: time is up; the write goes on, unattended."},
    {Kind::kUnmounted, "  removes and unmounts the package $1"},
    {Kind::kPowerUnlocked, "  the power lock is released"},
    {Kind::kProgress, "  published progress: $1 %"},
    {Kind::kEnding, "The daemon ends."},
};

std::string fill(const std::string& sentence, const std::vector<std::string>& values)
{
    std::string text;
    for (size_t i = 0; i < sentence.size(); ++i) {
        const size_t index = i + 1 < sentence.size() ? static_cast<size_t>(sentence[i + 1] - '1') : 0;
        if (sentence[i] == '$' && index < values.size()) {
            text += values[index];
            ++i;
        } else {
            text += sentence[i];
        }
    }
    return text;
}

std::string tellAnswer(int answer)
{
    return answer == 1 ? "The user accepts." : answer == 4 ? "The upgrade UI is closed." : "";
}

} // namespace

std::string Narrator::tell(const common::DaemonEvent& event)
{
    if (event.kind == Kind::kState) {
        return tellState(event.number(0));
    }
    if (event.kind == Kind::kAnswer) {
        return tellAnswer(event.number(0));
    }
    for (const Telling& telling : kTellings) {
        if (telling.kind == event.kind) {
            return fill(telling.sentence, event.values);
        }
    }
    return "";
}

std::string Narrator::tellState(int state)
{
    const char* const name = common::daemonStateName(state);
    const bool isNew = state != state_ && name != nullptr;
    state_ = state;
    return isNew ? "State " + std::to_string(state) + ": " + name + "." : "";
}

} // namespace vset
