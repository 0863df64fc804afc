#include "vset/write-watch/write-watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <seccomp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace vset
{

namespace
{

namespace fs = std::filesystem;

enum class Size { None, Argument, Vector }; // how a call tells how many bytes it writes

struct Call {
    const char* name;
    unsigned int descriptorArgument; // which argument names the file
    Size size;
    unsigned int sizeArgument; // the number of bytes; of a vector, its address, and behind it its length
    bool devicesOnly = false;  // on a plain file it changes nothing that lasts
};
constexpr Call kCalls[] = {
    {"write", 0, Size::Argument, 2},   {"pwrite64", 0, Size::Argument, 2},
    {"writev", 0, Size::Vector, 1},    {"pwritev", 0, Size::Vector, 1},
    {"pwritev2", 0, Size::Vector, 1},  {"sendfile", 0, Size::Argument, 3},
    {"splice", 2, Size::Argument, 4},  {"copy_file_range", 2, Size::Argument, 4},
    {"ftruncate", 0, Size::None, 0},   {"fallocate", 0, Size::None, 0},
    {"fsync", 0, Size::None, 0},       {"fdatasync", 0, Size::None, 0},
    {"syncfs", 0, Size::None, 0},      {"sync_file_range", 0, Size::None, 0},
    {"ioctl", 0, Size::None, 0, true},
};

// Calls that change a directory's entries, or a file without opening it.
struct PathCall {
    const char* name;
    int directoryArgument; // what a relative path starts from; kWorkingDirectory when no argument says it
    unsigned int pathArgument;
};
constexpr int kWorkingDirectory = -1;
constexpr PathCall kPathCalls[] = {
    {"rename", kWorkingDirectory, 1},
    {"renameat", 2, 3},
    {"renameat2", 2, 3},
    {"unlink", kWorkingDirectory, 0},
    {"unlinkat", 0, 1},
    {"link", kWorkingDirectory, 1},
    {"linkat", 2, 3},
    {"symlink", kWorkingDirectory, 1},
    {"symlinkat", 1, 2},
    {"truncate", kWorkingDirectory, 0},
};

// Calls that flush without naming a file.
struct Flush {
    const char* name;
};
constexpr Flush kFlushes[] = {{"sync"}, {"msync"}};

// Where programs leave notes, streams and locks: nothing there is hardware.
constexpr const char* kPassing[] = {
    "/tmp/",        "/run/",
    "/proc/",       "/var/log/",
    "/dev/shm/",    "/dev/mqueue",
    "/dev/pts/",    "/dev/tty",
    "/dev/null",    "/dev/zero",
    "/dev/full",    "/dev/random",
    "/dev/urandom", "/dev/fuse",
    "/memfd:",      "/opt/usr/apps/appbinarymanager/"}; // packages: the daemon removes them

template <typename Table>
auto findCall(const Table& calls, const seccomp_notif& notice)
{
    const auto* const found = std::find_if(std::begin(calls), std::end(calls), [&](const auto& call) {
        return seccomp_syscall_resolve_name(call.name) == notice.data.nr;
    });
    return found == std::end(calls) ? nullptr : found;
}

template <typename Table>
void hold(CallFilter& filter, const Table& calls)
{
    for (const auto& call : calls) {
        filter.hold(call.name);
    }
}

bool isHardware(const std::string& path)
{
    if (path.empty() || path.front() != '/') {
        return false; // a pipe, a socket, an event
    }
    return std::none_of(std::begin(kPassing), std::end(kPassing), [&](const char* passing) {
        return path.compare(0, std::strlen(passing), passing) == 0;
    });
}

bool isDevice(const fs::path& link)
{
    struct stat file = {};
    return stat(link.c_str(), &file) == 0 && (S_ISCHR(file.st_mode) || S_ISBLK(file.st_mode));
}

fs::path descriptorLink(const seccomp_notif& notice, unsigned int argument)
{
    return "/proc/" + std::to_string(notice.pid) + "/fd/" +
           std::to_string(static_cast<int>(notice.data.args[argument]));
}

// Text in the memory of the process that waits, read page by page; "" when it cannot be.
std::string textAt(pid_t process, std::uint64_t address)
{
    constexpr std::uint64_t kPage = 4096; // or a part of the machine's
    std::string text;
    while (text.size() < PATH_MAX) {
        std::array<char, kPage> piece{};
        const iovec here{piece.data(), kPage - address % kPage};
        const iovec there{reinterpret_cast<void*>(address), here.iov_len}; // of that process
        if (process_vm_readv(process, &here, 1, &there, 1, 0) != static_cast<ssize_t>(here.iov_len)) {
            return "";
        }
        const std::size_t length = strnlen(piece.data(), here.iov_len);
        text.append(piece.data(), length);
        if (length < here.iov_len) {
            return text;
        }
        address += here.iov_len;
    }
    return "";
}

std::string pathOf(const PathCall& call, const seccomp_notif& notice)
{
    std::string text = textAt(static_cast<pid_t>(notice.pid), notice.data.args[call.pathArgument]);
    if (text.empty() || text.front() == '/') {
        return text;
    }
    const bool isBelowDescriptor =
        call.directoryArgument != kWorkingDirectory &&
        static_cast<int>(notice.data.args[static_cast<unsigned int>(call.directoryArgument)]) != AT_FDCWD;
    const fs::path start = isBelowDescriptor
                               ? descriptorLink(notice, static_cast<unsigned int>(call.directoryArgument))
                               : fs::path("/proc/" + std::to_string(notice.pid) + "/cwd");
    std::error_code gone;
    return (fs::read_symlink(start, gone) / text).lexically_normal();
}

// Of a vector in the memory of the process that waits. What cannot be read counts as nothing: the call will
// fail by itself.
std::uint64_t bytesOfVector(pid_t process, std::uint64_t address, std::uint64_t length)
{
    std::vector<iovec> parts(std::min<std::uint64_t>(length, IOV_MAX));
    const iovec here{parts.data(), parts.size() * sizeof(iovec)};
    const iovec there{reinterpret_cast<void*>(address), here.iov_len}; // of that process
    if (process_vm_readv(process, &here, 1, &there, 1, 0) != static_cast<ssize_t>(here.iov_len)) {
        return 0;
    }
    std::uint64_t sum = 0;
    for (const iovec& part : parts) {
        sum += part.iov_len;
    }
    return sum;
}

std::uint64_t bytesOf(const Call& call, const seccomp_notif& notice)
{
    const auto& arguments = notice.data.args;
    switch (call.size) {
    case Size::Argument:
        return arguments[call.sizeArgument];
    case Size::Vector:
        return bytesOfVector(static_cast<pid_t>(notice.pid), arguments[call.sizeArgument],
                             arguments[call.sizeArgument + 1]);
    case Size::None:
        break;
    }
    return 0;
}

std::string fieldOf(const fs::path& file, const std::string& name)
{
    std::ifstream in(file);
    for (std::string word; in >> word;) {
        if (word == name + ":") {
            in >> word;
            return word;
        }
    }
    return "";
}

bool isSynchronous(const seccomp_notif& notice, unsigned int argument)
{
    const fs::path file = "/proc/" + std::to_string(notice.pid) + "/fdinfo/" +
                          std::to_string(static_cast<int>(notice.data.args[argument]));
    const unsigned long flags = std::strtoul(fieldOf(file, "flags").c_str(), nullptr, 8);
    return (flags & O_DSYNC) != 0; // O_SYNC has it, too
}

std::optional<HardwareWrite> hardwareWriteIn(const seccomp_notif& notice)
{
    HardwareWrite write;
    write.id = notice.id;
    write.thread = static_cast<pid_t>(notice.pid);
    std::copy(std::begin(notice.data.args), std::end(notice.data.args), write.arguments.begin());
    if (const Flush* const flush = findCall(kFlushes, notice)) {
        write.call = flush->name;
        return write;
    }
    if (const Call* const call = findCall(kCalls, notice)) {
        const fs::path link = descriptorLink(notice, call->descriptorArgument);
        std::error_code gone;
        write.call = call->name;
        write.path = fs::read_symlink(link, gone);
        write.bytes = bytesOf(*call, notice);
        const bool isToDevice = isDevice(link);
        if (call->devicesOnly && !isToDevice) {
            return std::nullopt;
        }
        write.isLasting = isToDevice || isSynchronous(notice, call->descriptorArgument);
    } else if (const PathCall* const pathCall = findCall(kPathCalls, notice)) {
        write.call = pathCall->name;
        write.path = pathOf(*pathCall, notice);
    }
    return isHardware(write.path) ? std::optional(write) : std::nullopt;
}

} // namespace

void submitToWatch(int socket)
{
    CallFilter filter(CallFilter::Others::kPass);
    hold(filter, kCalls);
    hold(filter, kPathCalls);
    hold(filter, kFlushes);
    filter.submit(socket);
}

std::optional<HardwareWrite> WriteWatch::next()
{
    const std::optional<seccomp_notif> notice = listener_.next();
    std::optional<HardwareWrite> write = notice ? hardwareWriteIn(*notice) : std::nullopt;
    if (notice && !write) {
        listener_.letPass(notice->id);
    }
    return write;
}

void WriteWatch::refuse(const HardwareWrite& write, int error)
{
    listener_.answer(write.id, 0, error);
}

namespace
{
// The same open file, with the same position; -1 when the system does not let us have it.
int copyOfDescriptor(pid_t thread, int descriptor)
{
    const std::string process = fieldOf("/proc/" + std::to_string(thread) + "/status", "Tgid");
    const int handle =
        static_cast<int>(syscall(SYS_pidfd_open, std::strtol(process.c_str(), nullptr, 10), 0));
    const int copy = handle < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_getfd, handle, descriptor, 0));
    close(handle);
    return copy;
}
} // namespace

bool WriteWatch::spoil(const HardwareWrite& write)
{
    const bool hasPosition = write.call == "pwrite64";
    std::vector<char> data(write.bytes);
    const iovec here{data.data(), data.size()};
    const iovec there{reinterpret_cast<void*>(write.arguments[1]), data.size()}; // of that process
    if ((!hasPosition && write.call != "write") || data.empty() ||
        process_vm_readv(write.thread, &here, 1, &there, 1, 0) != static_cast<ssize_t>(data.size())) {
        return false;
    }
    const int file = copyOfDescriptor(write.thread, static_cast<int>(write.arguments[0]));
    if (file < 0) {
        return false;
    }
    data[data.size() / 2] = static_cast<char>(~data[data.size() / 2]);
    const ssize_t written =
        hasPosition ? pwrite(file, data.data(), data.size(), static_cast<off_t>(write.arguments[3]))
                    : ::write(file, data.data(), data.size());
    const int error = written < 0 ? errno : 0;
    close(file);
    listener_.answer(write.id, error == 0 ? written : 0, error);
    return true;
}

} // namespace vset
