// A piece of hardware of its own for each experiment: the set's /var, copied, kept over boots.
//
// At a boot a process gets namespaces of its own, in which that copy is the set's /var, and everything that a
// power cut takes away (/tmp, /run, shared memory, processes) is new. So experiments do not see each other, a
// lock that was left in /run is gone as on a set, and one kill ends all that the library has started.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_MACHINE_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_MACHINE_H

#include <filesystem>
#include <functional>
#include <string>
#include <sys/types.h>

namespace fwmod::examiner
{

class Machine
{
public:
    Machine();
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Where `original` is seen by the library, it sees this directory instead: another image.
    void replaceDirectory(const std::filesystem::path& original, const std::filesystem::path& replacement);

    // From the next boot on nothing below /var can be written.
    void makeReadOnly() { isReadOnly_ = true; }

    // The set's file, on this machine.
    std::filesystem::path file(const std::filesystem::path& path) const;

    // A sum over names, sizes and contents of /var: whether anything of the hardware has changed.
    std::size_t stateOfHardware() const;

    // Runs `worker` in a process under the daemon's user. Returns the process that keeps it: to kill that one
    // is to cut the power. It ends after the worker and has written the worker's status to *status, which
    // must be shared memory.
    pid_t boot(const std::function<void()>& worker, int* status);

private:
    void compose(const std::filesystem::path& boot) const;
    [[noreturn]] void keep(const std::filesystem::path& boot, const std::function<void()>& worker,
                           int* status) const;

    std::filesystem::path directory_;
    std::filesystem::path original_;
    std::filesystem::path replacement_;
    bool isReadOnly_ = false;
    unsigned int boots_ = 0;
};

// Makes the place where machines lie, in memory, and the images unchangeable, as a mounted package is. Once,
// before the first machine.
void makeMachineRoom(const std::string& imageDirectory);

// Copies a file, a link, a pipe or an empty directory with its owner and mode.
void copyEntry(const std::filesystem::path& from, const std::filesystem::path& to);

// Copies directories, files and links with their owners and modes.
void copyTree(const std::filesystem::path& from, const std::filesystem::path& to);

// The same hardware on another machine.
void takeHardware(const Machine& from, const Machine& to);

} // namespace fwmod::examiner

#endif
