// Stops a process before each of its writes to hardware, from outside and without its co-operation.
//
// The process to be watched puts a seccomp filter on itself, which stays over exec and covers its threads and
// children. From then on a write waits in the kernel until the watcher has let it pass, so a watcher that
// kills the process instead ends it between two writes, as a power cut would.
//
// "Hardware" is what outlives a power cut: device nodes and files, but for those where programs leave notes
// (/tmp, /run, /proc, /dev/shm, /var/log, the packages), and for pipes and sockets, through which it only
// passes. A flush that waits counts as a write, because it orders those around it (sync and msync name no
// file, and have no path), and so do renaming, linking and removing. Not seen: stores into mapped memory.
//
// Linux 5.5 or later. A process can be watched once. Errors are std::system_error.
#ifndef VSET_WRITE_WATCH_WRITE_WATCH_H
#define VSET_WRITE_WATCH_WRITE_WATCH_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

#include "vset/write-watch/call-listener.h"

namespace vset
{

// The name that an msync without MS_SYNC has here: it is no flush, and tells that one was meant.
constexpr const char* kMsyncWithoutWaiting = "msync without MS_SYNC";

struct HardwareWrite {
    std::uint64_t id = 0;    // the kernel's
    pid_t thread = 0;        // that waits, as the watcher's process namespace numbers it
    std::string call;        // "pwrite64"
    std::string path;        // as the watched process sees it
    std::string source;      // what is renamed or linked to that path
    std::uint64_t bytes = 0; // asked for; 0 for a call that writes none, such as a flush
    bool isRead = false;     // a read, where reads are held as well
    bool isLasting = false;  // needs no flush: to a device, or a file that was opened for synchronous writing
    std::optional<std::uint64_t> position;    // in the file, where it is known
    std::array<std::uint64_t, 6> arguments{}; // the call's
};

// In the process that is to be watched, before it starts threads: puts the filter in place and hands the
// listening end to the watcher over `socket`, a connected Unix socket. Gives up new privileges for good. A
// process has many more reads than writes: they are held only where one is to fail.
enum class Reads { kPass, kHeld };
void submitToWatch(int socket, Reads reads = Reads::kPass);

// The watcher's end. One thread at a time.
class WriteWatch
{
public:
    // Takes the listening end from the other end of the socket; waits for it.
    explicit WriteWatch(int socket) : listener_(socket) {}

    // For poll(): readable when a call waits; hung up once the last watched process has ended.
    int descriptor() const { return listener_.descriptor(); }

    // Takes the call that waits. Nothing when it is none to hardware, which has been let pass, or when the
    // process has ended meanwhile. Blocks when no call waits.
    std::optional<HardwareWrite> next();

    // Lets the call happen. Not to be called is to leave it waiting.
    void allow(const HardwareWrite& write) { listener_.letPass(write.id); }

    // Lets it fail with an errno instead.
    void refuse(const HardwareWrite& write, int error);

    // Makes the write as worn-out hardware does: with success, but one byte in its middle is another one.
    struct Spoilt {
        std::string wrong; // what was written around that byte
        std::string right; // and what should have been
    };
    // Nothing when it is none that this can be done to; it still waits then.
    std::optional<Spoilt> spoil(const HardwareWrite& write);

private:
    CallListener listener_;
};

} // namespace vset

#endif
