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
    kEnclosing,  // also when a few only are chosen: it keeps what they change
    kBeside,     // beside the others, as it mostly waits; there is one at most
    kAfterBeside // of the same service as that
};

struct ListedTrial {
    const char* name;
    const char* title; // for progress and reports
    When when = When::kAlways;
};

inline constexpr ListedTrial kTrials[] = {
    {"load", "Loading", When::kFirst},
    {"bus", "The name on the bus", When::kFirst},
    {"settings-save", "Settings as they are", When::kEnclosing},
    {"watchdog", "Watchdog", When::kBeside},
    {"settings", "Settings"},
    {"settings-shared", "Settings of another process"},
    {"notifications", "Changes of settings"},
    {"notification-threads", "Changes of settings, and threads"},
    {"listeners", "Changes of settings, and many listeners"},
    {"power-state", "Power state"},
    {"power-events", "Power events"},
    {"power-changes", "Changes of power", When::kWithPerson},
    {"power-locks", "Power locks"},
    {"power-lock-times", "Times of power locks"},
    {"flags", "Flags"},
    {"flags-shared", "Flags of another process"},
    {"property", "The software's version"},
    {"no-property", "Properties without a value"},
    {"package", "Packages"},
    {"launch", "Launches"},
    {"null-launch", "Launches without a request"},
    {"mount", "Mounts"},
    {"two-mounts", "Two mounts"},
    {"refused-mounts", "Mounts that cannot be"},
    {"node", "Nodes of loop devices"},
    {"platform-log", "Platform log"},
    {"trace-log", "Trace recorder"},
    {"mounts-together", "Mounts of two threads"},
    {"settings-later", "Settings, some time later"},
    {"flags-later", "Flags, some time later"},
    {"together", "Calls of several threads"},
    {"power-together", "Power calls of six threads"},
    {"properties-together", "Properties of eight threads"},
    {"beside-packages", "Quick calls beside packages"},
    {"beside-launches", "Quick calls beside launches"},
    {"beside-mounts", "Quick calls beside mounts"},
    {"kinds", "Calls of each kind"},
    {"again-settings", "Settings, again and again"},
    {"again-subscription", "Subscriptions, again and again"},
    {"again-notification", "Changes of a key, again and again"},
    {"again-power", "Power state and locks, again and again"},
    {"again-power-events", "Subscriptions to power, again and again"},
    {"again-flags", "Flags, again and again"},
    {"again-property", "Properties, again and again"},
    {"again-package", "Packages, again and again"},
    {"again-launch", "Launches, again and again"},
    {"again-mount", "Mounts, again and again"},
    {"again-mounted", "An image, mounted again and again"},
    {"again-platform-log", "Platform log, again and again"},
    {"again-trace-log", "Trace recorder, again and again"},
    {"again-threads", "Calls of threads that come and go"},
    {"bus-kept", "The name on the bus, beside all calls"},
    {"again-watchdog", "Watchdog, again and again", When::kAfterBeside},
    {"settings-restore", "Settings as they were", When::kEnclosing},
    {"reboot", "Reboot", When::kWithReboot},
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
