// What the table of speeds shows: which figure of a row is ours, which is its limit and which is a peer's.
#ifndef BENCH_REPORT_COMPARISONS_H
#define BENCH_REPORT_COMPARISONS_H

#include <array>

namespace bench
{

// A figure of the row's program: what it measured, and of that the time, or what it has noted.
struct Figure {
    const char* measured = nullptr; // null: there is none
    const char* noted = nullptr;    // null: the time elapsed
    const char* title = nullptr;    // for a reader; of a limit or a peer
};

// What was set out to be reached.
struct Goal {
    enum class Of { kNothing, kItself, kLimit, kPeer };
    double most = 0; // of our figure in its unit, or of its ratio
    Of of = Of::kNothing;
};
using Goals = std::array<Goal, 2>; // of most lines the second is none

struct Comparison {
    const char* row;
    const char* title;
    const char* unit;
    Figure ours;
    Figure limit; // what cannot be left out
    Figure peer;  // the same work, done by another program or in the plain way
    Goals goals;
};

using Of = Goal::Of;
inline constexpr Figure kNone;

inline constexpr std::array kComparisons = {
    Comparison{"start",
               "start to the name, 10 modules",
               "ms",
               {"daemon/10"},
               {"bareService", nullptr, "bare GLib service"},
               {"updateService", nullptr, "rauc service"},
               {{{1.45, Of::kLimit}, {0.55, Of::kPeer}}}},
    Comparison{"start",
               "start to the name, 100 modules",
               "ms",
               {"daemon/100"},
               {"bareService", nullptr, "bare GLib service"},
               {"settingsService", nullptr, "dconf-service"},
               {}},
    Comparison{"idle",
               "wake-ups, idle",
               "a minute",
               {"daemon", "wakeUps"},
               {"bareService", "wakeUps", "bare service with a heartbeat"},
               {"settingsService", "wakeUps", "dconf-service"},
               {{{72, Of::kItself}}}},
    Comparison{"idle",
               "memory of its own, idle",
               "KiB",
               {"daemon", "kilobytes"},
               {"bareService", "kilobytes", "bare GLib service"},
               {"settingsService", "kilobytes", "dconf-service"},
               {}},
    Comparison{"clock",
               "wake-ups, idle, on a set's clock",
               "a minute",
               {"daemon", "wakeUps"},
               {"bareService", "wakeUps", "bare service without that clock"},
               kNone,
               {{{72, Of::kItself}}}},
    Comparison{"registry",
               "registry of 10 modules",
               "ms",
               {"daemon/10"},
               {"bareLoader/10", nullptr, "loader and questions"},
               kNone,
               {}},
    Comparison{"registry",
               "registry of 100 modules",
               "ms",
               {"daemon/100"},
               {"bareLoader/100", nullptr, "loader and questions"},
               kNone,
               {}},
    Comparison{"registry",
               "registry of 1000 modules",
               "ms",
               {"daemon/1000"},
               {"bareLoader/1000", nullptr, "loader and questions"},
               kNone,
               {}},
    Comparison{"list",
               "list pass, 100 images of 4 KiB",
               "ms",
               {"daemon/small"},
               {"rawReads/small", nullptr, "raw reads"},
               {"cksum/small", nullptr, "cksum"},
               {}},
    Comparison{"list",
               "list pass, 100 images of 1 MiB",
               "ms",
               {"daemon/large"},
               {"rawReads/large", nullptr, "raw reads"},
               {"cksum/large", nullptr, "cksum"},
               {}},
    Comparison{"log",
               "record in the set's log",
               "ms",
               {"record"},
               {"bareWrite", nullptr, "bare write"},
               {"openWriteClose", nullptr, "open, write and close"},
               {{{0.0015, Of::kItself}}}},
    Comparison{"checksum",
               "checksum of 256 MiB",
               "ms",
               {"daemon"},
               {"rawReads", nullptr, "raw reads"},
               {"byteWiseTemplate", nullptr, "byte-wise template"},
               {{{0.22, Of::kPeer}}}},
    Comparison{"checksum",
               "checksum, beside another one",
               "ms",
               {"daemon"},
               {"rawReads", nullptr, "raw reads"},
               {"cksum", nullptr, "cksum"},
               {}},
    Comparison{"decryption",
               "decryption of 256 MiB",
               "ms",
               {"daemon/hugePages"},
               {"bareLoop/hugePages", nullptr, "bare cipher loop"},
               {"openssl/hugePages", nullptr, "openssl enc"},
               {{{1, Of::kLimit}}}},
    Comparison{"decryption",
               "decryption without huge pages",
               "ms",
               {"daemon/smallPages"},
               {"bareLoop/smallPages", nullptr, "bare cipher loop"},
               {"openssl/smallPages", nullptr, "openssl enc"},
               {}},
    Comparison{"orchestration",
               "what stands around an update",
               "ms",
               {"daemon"},
               {"handOver", nullptr, "hand-over to a waiting thread"},
               {"bareScheme", nullptr, "bare semaphore, thread and wait"},
               {{{1, Of::kPeer}}}},
    Comparison{"mounts",
               "package mounted and unmounted",
               "ms",
               {"daemon"},
               {"systemCalls", nullptr, "raw system calls"},
               {"commands", nullptr, "losetup and mount"},
               {}},
    Comparison{"mounts",
               "package mounted, beside a bind",
               "ms",
               {"daemon"},
               {"bareBind", nullptr, "bare bind"},
               {"commands", nullptr, "losetup and mount"},
               {}},
    Comparison{"set",
               "vset run to the daemon's name",
               "ms",
               {"toName"},
               {"busAndService", nullptr, "bus with a bare service"},
               kNone,
               {{{35, Of::kItself}}}},
    Comparison{"set",
               "the same after 900 boots of the set",
               "ms",
               {"agedSet"},
               {"youngSet", nullptr, "a new set's first boots"},
               kNone,
               {{{1.1, Of::kLimit}}}},
    Comparison{"set",
               "reboot to the name",
               "ms",
               {"reboot"},
               {"busAndService", nullptr, "bus with a bare service"},
               kNone,
               {}},
    Comparison{"set",
               "vset run of a command, to its end",
               "ms",
               {"toCommand"},
               {"namespaces", nullptr, "unshare"},
               kNone,
               {}},
    Comparison{"fwctl",
               "fwctl list, 100 modules",
               "ms",
               {"list"},
               {"bareProcesses", nullptr, "process for each, loader"},
               kNone,
               {{{60, Of::kItself}}}},
    Comparison{"fwctl",
               "fwctl doctor, 100 modules",
               "ms",
               {"doctor"},
               {"bareProcesses", nullptr, "process for each, loader"},
               kNone,
               {{{100, Of::kItself}}}},
    Comparison{
        "fwctl", "fwctl --help", "ms", {"help"}, {"true", nullptr, "true"}, kNone, {{{4, Of::kItself}}}},
    Comparison{"fwmod",
               "fwmod --help",
               "ms",
               {"help/fwmod"},
               {"true", nullptr, "true"},
               kNone,
               {{{4, Of::kItself}}}},
    Comparison{
        "fwmod", "vset --help", "ms", {"help/vset"}, {"true", nullptr, "true"}, kNone, {{{4, Of::kItself}}}},
    Comparison{"fwmod", "fwmod check of the tuner", "ms", {"check"}, kNone, kNone, {{{6000, Of::kItself}}}},
    Comparison{"fwmod", "fwmod try of the tuner", "ms", {"try"}, kNone, kNone, {{{3000, Of::kItself}}}},
    Comparison{"fwmod", "size of tarnwick", "KiB", {"size/tarnwick", "kilobytes"}, kNone, kNone, {}},
    Comparison{"fwmod", "size of fwctl", "KiB", {"size/fwctl", "kilobytes"}, kNone, kNone, {}},
    Comparison{"fwmod", "size of fwmod", "KiB", {"size/fwmod", "kilobytes"}, kNone, kNone, {}},
    Comparison{"fwmod", "size of vset", "KiB", {"size/vset", "kilobytes"}, kNone, kNone, {}},
};

} // namespace bench

#endif
