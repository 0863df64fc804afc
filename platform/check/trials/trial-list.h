// The trials in the order in which they are made: the check starts them, the program platform-trial has them.
#ifndef PLATFORM_CHECK_TRIALS_TRIAL_LIST_H
#define PLATFORM_CHECK_TRIALS_TRIAL_LIST_H

#include <cstring>

namespace platformcheck
{

enum class When {
    kAlways,
    kWithPerson, // somebody changes the power
    kWithReboot, // what they end is the set itself
    kFirst,      // it was refused, or could not be started: so would all others
    kEnclosing   // also when a few only are chosen: it keeps what they change
};

// Trials of different lanes are made beside each other, those of one after another. What does more than wait
// is alone, or its calls would wait for those of others.
enum class Lane { kAlone, kSettings, kPower, kServices, kMounts, kLogs };

struct ListedTrial {
    const char* name;
    const char* title; // for progress and reports
    Lane lane;
    When when = When::kAlways;
};

inline constexpr ListedTrial kTrials[] = {
    {"load", "Loading", Lane::kAlone, When::kFirst},
    {"bus", "The name on the bus", Lane::kAlone, When::kFirst},
    {"settings-save", "Settings as they are", Lane::kAlone, When::kEnclosing},
    {"settings", "Settings", Lane::kSettings},
    {"settings-shared", "Settings of another process", Lane::kSettings},
    {"notifications", "Changes of settings", Lane::kSettings},
    {"notification-threads", "Changes of settings, and threads", Lane::kSettings},
    {"power-state", "Power state", Lane::kPower},
    {"power-events", "Power events", Lane::kPower},
    {"power-changes", "Changes of power", Lane::kPower, When::kWithPerson},
    {"power-locks", "Power locks", Lane::kPower},
    {"power-lock-times", "Times of power locks", Lane::kPower},
    {"flags", "Flags", Lane::kServices},
    {"flags-shared", "Flags of another process", Lane::kServices},
    {"watchdog", "Watchdog", Lane::kLogs},
    {"property", "The software's version", Lane::kServices},
    {"no-property", "Properties without a value", Lane::kServices},
    {"package", "Packages", Lane::kServices},
    {"launch", "Launches", Lane::kServices},
    {"null-launch", "Launches without a request", Lane::kServices},
    {"mount", "Mounts", Lane::kMounts},
    {"two-mounts", "Two mounts", Lane::kMounts},
    {"refused-mounts", "Mounts that cannot be", Lane::kMounts},
    {"node", "Nodes of loop devices", Lane::kMounts},
    {"platform-log", "Platform log", Lane::kLogs},
    {"trace-log", "Trace recorder", Lane::kLogs},
    {"mounts-together", "Mounts of two threads", Lane::kMounts},
    {"power-together", "Power calls of six threads", Lane::kAlone},
    {"again-settings", "Settings, again and again", Lane::kAlone},
    {"again-subscription", "Subscriptions, again and again", Lane::kAlone},
    {"again-notification", "Changes of a key, again and again", Lane::kAlone},
    {"again-power", "Power state and locks, again and again", Lane::kAlone},
    {"again-power-events", "Subscriptions to power, again and again", Lane::kAlone},
    {"again-flags", "Flags, again and again", Lane::kAlone},
    {"again-watchdog", "Watchdog, again and again", Lane::kAlone},
    {"again-property", "Properties, again and again", Lane::kAlone},
    {"again-package", "Packages, again and again", Lane::kAlone},
    {"again-launch", "Launches, again and again", Lane::kAlone},
    {"again-mount", "Mounts, again and again", Lane::kAlone},
    {"again-mounted", "An image, mounted again and again", Lane::kAlone},
    {"again-platform-log", "Platform log, again and again", Lane::kAlone},
    {"again-trace-log", "Trace recorder, again and again", Lane::kAlone},
    {"settings-later", "Settings, some time later", Lane::kSettings},
    {"flags-later", "Flags, some time later", Lane::kServices},
    {"together", "Calls of several threads", Lane::kAlone},
    {"again-threads", "Calls of threads that come and go", Lane::kAlone},
    {"bus-kept", "The name on the bus, beside all calls", Lane::kAlone},
    {"settings-restore", "Settings as they were", Lane::kAlone, When::kEnclosing},
    {"reboot", "Reboot", Lane::kAlone, When::kWithReboot},
};

inline const char* titleOf(const char* name)
{
    for (const ListedTrial& trial : kTrials) {
        if (std::strcmp(trial.name, name) == 0) {
            return trial.title;
        }
    }
    return name;
}

} // namespace platformcheck

#endif
