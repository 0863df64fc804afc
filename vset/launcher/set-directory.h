// The directory of a set on the PC: what lies where, who owns it, and whether the set is running.
//
//   SET/usr/    put over the PC's /usr while the set runs
//   SET/root/   the set's root: tmp run prd opt var srv home root, plain directories to look into
//   SET/.vset/  the launcher's own: lock (held while the set runs), clock, machine-id, life (life-record.h);
//               and what is being put into the set, until it is whole (vset/television/workshop.h)
#ifndef VSET_LAUNCHER_SET_DIRECTORY_H
#define VSET_LAUNCHER_SET_DIRECTORY_H

#include "vset/launcher/system.h"
#include "vset/television/users.h"

namespace vset
{

// What a running set tells other commands through its lock file.
struct RunningSet {
    pid_t init = 0;        // PID 1 of the set, as this command sees it
    bool rootless = false; // the set has a user namespace of its own
    bool clock = false;    // its processes run with the clock library
    UniqueFd process = {}; // PID 1 again, as no other process can be
};

// Held by the leader and by PID 1: the set counts as running until both are gone.
class SetLock
{
public:
    SetLock(UniqueFd file, UniqueFd directory) : file_(std::move(file)), directory_(std::move(directory)) {}
    void publish(const RunningSet& running) const;

private:
    UniqueFd file_;
    UniqueFd directory_;
};

// Opens, to be written, a file that the launcher keeps in the set: no link, and never waiting for somebody at
// the other end of a pipe. Throws what says that something else is in its place.
UniqueFd openOwnFile(const fs::path& path, int flags);

class SetDirectory
{
public:
    // A new directory with everything a set needs, to be removed by the caller.
    static SetDirectory makeTemporary();
    // An existing set; throws Error when there is none at `path`.
    static SetDirectory open(const fs::path& path);
    enum class Content { kDaemon, kNothing };
    // Makes the skeleton at `path` (which may exist already as a set), puts the daemon into it, and returns
    // it. Throws Error; what was not there before is removed then.
    static SetDirectory make(const fs::path& path, Content content);

    const fs::path& path() const { return path_; }
    fs::path root() const { return path_ / "root"; }
    fs::path usr() const { return path_ / "usr"; }
    fs::path clockFile() const { return path_ / ".vset/clock"; }
    fs::path machineIdFile() const { return path_ / ".vset/machine-id"; }

    // Throws Error when the set is running. Waits a moment for who only looks whether it is.
    SetLock lock() const;
    // This set's own first process, for certain. Throws Error when the set is off or not up yet, when its
    // lock file names another process, or when it is another user's.
    RunningSet running() const;

    // Creates what is missing of the skeleton; what exists keeps its contents.
    void complete() const;
    // What root has made or run with the set's own users is root's in a set without root, which has no other,
    // and theirs again when root runs it as usual. After complete(), which sees that no link leads out of the
    // set.
    void giveToUsers(bool isRootless) const;
    // A fresh /tmp and /run, as at every boot. Only while the set does not run.
    void wipeVolatile() const;
    // Removes the whole directory.
    void remove() const;

private:
    explicit SetDirectory(fs::path path) : path_(std::move(path)) {}

    // Puts the daemon, its platform library and the command fwctl into SET/usr: from the kit, or from the
    // build tree, where fwctl is left out if it was not built. Throws Error when the daemon was not.
    void installDaemon() const;

    fs::path path_;
};

} // namespace vset

#endif
