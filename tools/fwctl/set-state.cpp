#include "tools/fwctl/set-state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gio/gio.h>
#include <json/json.h>
#include <pwd.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "common/daemon/places.h"
#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "common/process/process-stat.h"

namespace fwctl
{

namespace fs = std::filesystem;

// ---- The daemon ----

namespace
{
using common::places::kDaemonName;
constexpr const char* kDaemonProgram = "tarnwick";
constexpr const char* kDaemonUser = "fwupdate"; // when neither the bus nor the semaphore tells

std::string nameOf(const fs::path& process)
{
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

// 0: there is none.
pid_t processNamed(const std::string& name)
{
    std::error_code error;
    for (fs::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error)) {
        const pid_t pid = std::atoi(process->path().filename().c_str());
        if (pid > 0 && nameOf(process->path()) == name && isRunning(pid)) {
            return pid;
        }
    }
    return 0;
}

// A number that the bus knows of the owner of the daemon's name.
std::optional<guint32> askBus(GDBusConnection* bus, const char* method)
{
    const common::GlibPointer<GVariant> reply(
        g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", method, g_variant_new("(s)", kDaemonName),
                                    G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr));
    if (!reply) {
        return std::nullopt;
    }
    guint32 number = 0;
    g_variant_get(reply.get(), "(u)", &number);
    return number;
}

// All that the platform of a virtual set knows; a television has no such service.
std::optional<Json::Value> askPlatform(GDBusConnection* bus)
{
    const common::GlibPointer<GVariant> reply(g_dbus_connection_call_sync(
        bus, common::places::kPlatformName, common::places::kPlatformPath, common::places::kControlInterface,
        "Snapshot", nullptr, G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, 5000, nullptr, nullptr));
    if (!reply) {
        return std::nullopt;
    }
    const char* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    return common::parseJsonObject(text);
}

// Seconds since a process started.
long ageOf(pid_t pid)
{
    const auto stat = common::readProcessStat("/proc/" + std::to_string(pid));
    double uptime = 0;
    std::ifstream("/proc/uptime") >> uptime;
    const unsigned long long start =
        stat ? stat->startTicks / static_cast<unsigned>(sysconf(_SC_CLK_TCK)) : 0;
    return std::max(0L, static_cast<long>(uptime) - static_cast<long>(start));
}

// A virtual set has a time of its own, of which the kernel's figures know nothing; its platform tells when
// the daemon registered with the watchdog, which is the first that it does. A television does not tell that.
std::optional<long> ageOnTheSetsClock(GDBusConnection* bus, pid_t pid)
{
    const std::optional<Json::Value> set = askPlatform(bus);
    if (!set) {
        return std::nullopt;
    }
    for (const Json::Value& registered : (*set)["watchdog"]["registered"]) {
        if (registered["service"]["pid"].asInt64() != pid) {
            continue;
        }
        return std::max(0L,
                        static_cast<long>(std::time(nullptr) - registered["registered_ms"].asInt64() / 1000));
    }
    return std::nullopt;
}
} // namespace

DaemonState findDaemon()
{
    DaemonState state;
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!bus) {
        return state;
    }
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    state.hasBus = true;
    state.pid = static_cast<pid_t>(askBus(bus.get(), "GetConnectionUnixProcessID").value_or(0));
    state.user = askBus(bus.get(), "GetConnectionUnixUser").value_or(0);
    if (state.pid == 0) {
        state.starting = processNamed(kDaemonProgram);
    } else {
        state.seconds = ageOnTheSetsClock(bus.get(), state.pid).value_or(ageOf(state.pid));
    }
    return state;
}

BusProblem problemOfBus()
{
    const uid_t user = geteuid();
    if (getpwuid(user) == nullptr) {
        return {"the system bus refuses the user number " + std::to_string(user) +
                    ", whom this set does not know",
                "run fwctl as root or as the daemon's user"};
    }
    return {"the system bus does not answer", "start the set's platform"};
}

std::optional<uid_t> daemonUser()
{
    const DaemonState daemon = findDaemon();
    return daemon.pid != 0 ? std::optional<uid_t>(daemon.user) : usualDaemonUser();
}

std::optional<uid_t> usualDaemonUser()
{
    const SemaphoreState semaphore = peekUpdateSemaphore();
    if (semaphore.exists && !semaphore.isForeign) {
        return semaphore.owner;
    }
    const passwd* const user = getpwnam(kDaemonUser);
    return user != nullptr ? std::optional<uid_t>(user->pw_uid) : std::nullopt;
}

// ---- The update semaphore ----

namespace
{
using common::places::kSemaphoreFile;

// An address range of another process.
struct Range {
    uint64_t begin = 0;
    uint64_t end = 0;
};

uint64_t hexNumber(const std::string& text)
{
    uint64_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

// The file as a line of "maps" names it: "00:1a 123 ". By number, because the C library makes a semaphore
// under another name, which its maker's mapping keeps.
std::string semaphoreInMaps()
{
    struct stat status = {};
    if (stat(kSemaphoreFile, &status) != 0) {
        return "";
    }
    char text[64];
    std::snprintf(text, sizeof text, " %02x:%02x %lu ", major(status.st_dev), minor(status.st_dev),
                  static_cast<unsigned long>(status.st_ino));
    return text;
}

// Where the process has the semaphore. `readable` tells whether it let itself be looked at.
std::optional<Range> semaphoreIn(const fs::path& process, const std::string& semaphore, bool& readable)
{
    std::ifstream maps(process / "maps");
    readable = maps.is_open() || errno == ENOENT || errno == ESRCH; // one that has ended has nothing
    for (std::string line; std::getline(maps, line);) {
        if (line.find(semaphore) == std::string::npos) {
            continue;
        }
        const std::size_t dash = line.find('-');
        return Range{hexNumber(line.substr(0, dash)),
                     hexNumber(line.substr(dash + 1, line.find(' ') - dash - 1))};
    }
    return std::nullopt;
}

// The threads of the process that sleep in a system call on the semaphore's memory: in sem_wait, that is.
std::vector<pid_t> threadsWaitingOn(const fs::path& process, const Range& range)
{
    std::vector<pid_t> waiting;
    std::error_code error;
    for (fs::directory_iterator task(process / "task", error), end; !error && task != end;
         task.increment(error)) {
        std::ifstream file(task->path() / "syscall"); // "202 0x7f... ...", "running" or unreadable
        std::string number;
        std::string argument;
        file >> number >> argument;
        const uint64_t address = argument.rfind("0x", 0) == 0 ? hexNumber(argument.substr(2)) : 0;
        if (address >= range.begin && address < range.end) {
            waiting.push_back(std::atoi(task->path().filename().c_str()));
        }
    }
    return waiting;
}

} // namespace

namespace
{

// Nobody gives it back that often: a higher number is no semaphore's, or a spoilt one's.
constexpr int kMostTurns = 1000;

using Words = std::array<std::uint32_t, sizeof(sem_t) / sizeof(std::uint32_t)>;

Words wordsOf(const void* semaphore)
{
    Words words{};
    std::memcpy(words.data(), semaphore, sizeof words);
    return words;
}

Words newSemaphore(unsigned int value)
{
    sem_t made{};
    sem_init(&made, 1, value); // for several processes, as one with a name
    return wordsOf(&made);
}

// Whether these bytes have what all such semaphores have in common: with others the C library's functions end
// the process.
bool isSemaphore(const void* memory)
{
    const Words one = newSemaphore(1);
    const Words two = newSemaphore(2);
    const Words there = wordsOf(memory);
    for (std::size_t word = 0; word < there.size(); ++word) {
        if (one[word] == two[word] && one[word] != 0 && there[word] != one[word]) {
            return false;
        }
    }
    return true;
}

} // namespace

SemaphoreState peekUpdateSemaphore()
{
    SemaphoreState state;
    struct stat status = {};
    if (lstat(kSemaphoreFile, &status) != 0) { // the C library follows no link either
        return state;
    }
    state.exists = true;
    state.owner = status.st_uid;
    state.isForeign = !S_ISREG(status.st_mode) || status.st_size < static_cast<off_t>(sizeof(sem_t));
    const int file = state.isForeign ? -1 : open(kSemaphoreFile, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return state;
    }
    void* const memory = mmap(nullptr, sizeof(sem_t), PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED) {
        return state;
    }
    const bool isValued = sem_getvalue(static_cast<sem_t*>(memory), &state.value) == 0;
    state.isForeign = !isValued || !isSemaphore(memory) || state.value < 0 || state.value > kMostTurns;
    state.isReadable = !state.isForeign;
    munmap(memory, sizeof(sem_t));
    return state;
}

SemaphoreProblem problemOf(const SemaphoreState& semaphore)
{
    if (semaphore.isForeign) {
        return {std::string(kSemaphoreFile) + " is no semaphore: no update can begin",
                "remove it, find out who made it, and restart the set"};
    }
    return {"the update semaphore cannot be read by this user", "run fwctl as root or as the daemon's user"};
}

SemaphoreUsers findSemaphoreUsers()
{
    SemaphoreUsers users;
    const std::string semaphore = semaphoreInMaps();
    if (semaphore.empty()) {
        return users;
    }
    std::error_code error;
    for (fs::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error)) {
        const pid_t pid = std::atoi(process->path().filename().c_str());
        if (pid <= 0 || pid == getpid()) {
            continue;
        }
        bool readable = true;
        if (const auto range = semaphoreIn(process->path(), semaphore, readable)) {
            users.known.push_back({pid, nameOf(process->path()), threadsWaitingOn(process->path(), *range)});
        }
        users.areAllKnown = users.areAllKnown && readable;
    }
    users.areAllKnown = users.areAllKnown && !error;
    return users;
}

bool isRunning(pid_t process)
{
    const auto stat = common::readProcessStat("/proc/" + std::to_string(process));
    return stat && !stat->hasEnded();
}

} // namespace fwctl
