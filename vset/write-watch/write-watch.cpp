#include "vset/write-watch/write-watch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <seccomp.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "common/files/unique-fd.h"

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
    int positionArgument = -1; // where in the file; of one without it begins where the file's own position is
};
constexpr Call kCalls[] = {
    {"write", 0, Size::Argument, 2},
    {"pwrite64", 0, Size::Argument, 2, false, 3},
    {"writev", 0, Size::Vector, 1},
    {"pwritev", 0, Size::Vector, 1, false, 3},
    {"pwritev2", 0, Size::Vector, 1, false, 3},
    {"sendfile", 0, Size::Argument, 3},
    {"splice", 2, Size::Argument, 4},
    {"copy_file_range", 2, Size::Argument, 4},
    {"ftruncate", 0, Size::None, 0},
    {"fallocate", 0, Size::None, 0},
    {"fsync", 0, Size::None, 0},
    {"fdatasync", 0, Size::None, 0},
    {"syncfs", 0, Size::None, 0},
    {"ioctl", 0, Size::None, 0, true},
};

constexpr Call kReads[] = {
    {"read", 0, Size::Argument, 2},
    {"pread64", 0, Size::Argument, 2, false, 3},
    {"readv", 0, Size::Vector, 1},
    {"preadv", 0, Size::Vector, 1, false, 3},
    {"preadv2", 0, Size::Vector, 1, false, 3},
};

// Calls that change a directory's entries, or a file without opening it.
struct PathCall {
    const char* name;
    int directoryArgument; // what a relative path starts from; kWorkingDirectory when no argument says it
    unsigned int pathArgument;
    bool hasSource = false; // the argument before these two, with its directory where there is one
};
constexpr int kWorkingDirectory = -1;
constexpr PathCall kPathCalls[] = {
    {"rename", kWorkingDirectory, 1, true},
    {"renameat", 2, 3, true},
    {"renameat2", 2, 3, true},
    {"unlink", kWorkingDirectory, 0},
    {"unlinkat", 0, 1},
    {"link", kWorkingDirectory, 1, true},
    {"linkat", 2, 3, true},
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
constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager/";
constexpr const char* kPassing[] = {
    "/tmp/",        "/run/",     "/proc/",    "/var/log/", "/dev/shm/", "/dev/mqueue",
    "/dev/pts/",    "/dev/tty",  "/dev/null", "/dev/zero", "/dev/full", "/dev/random",
    "/dev/urandom", "/dev/fuse", "/memfd:",   kPackages}; // which the daemon removes

template <typename Table>
std::vector<int> numbersOf(const Table& calls)
{
    std::vector<int> numbers;
    for (const auto& call : calls) {
        numbers.push_back(seccomp_syscall_resolve_name(call.name));
    }
    return numbers;
}

template <const auto& calls>
auto findCall(const seccomp_notif& notice)
{
    static const std::vector<int> numbers = numbersOf(calls); // each call that waits is looked up
    const auto found = std::find(numbers.begin(), numbers.end(), notice.data.nr);
    return found == numbers.end() ? nullptr : &calls[found - numbers.begin()];
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

// Writes to packages are nobody's matter, and reads of images are.
bool isWatched(const HardwareWrite& call)
{
    return isHardware(call.path) || (call.isRead && call.path.rfind(kPackages, 0) == 0);
}

mode_t modeOf(const fs::path& link)
{
    struct stat file = {};
    return stat(link.c_str(), &file) == 0 ? file.st_mode : 0;
}

// What goes through it lies nowhere, also where its name is among the hardware's.
bool isPassage(mode_t mode)
{
    return S_ISFIFO(mode) || S_ISSOCK(mode);
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

// Of one of the kernel's lists.
std::string beginningOf(const std::string& file)
{
    const common::UniqueFd in(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1024> text{};
    const ssize_t length = in ? read(in.get(), text.data(), text.size()) : 0;
    return std::string(text.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
}

// What stands behind a name in such a list: "flags:\t0100002\n".
std::string fieldOf(const std::string& list, const std::string& name)
{
    const std::size_t at = list.find(name + ":\t");
    const std::size_t begin = at + name.size() + 2;
    return at == std::string::npos ? "" : list.substr(begin, list.find('\n', begin) - begin);
}

// How a file is open, and where the next byte goes.
struct OpenFile {
    std::uint64_t position = 0;
    unsigned long flags = 0;

    bool isSynchronous() const { return (flags & O_DSYNC) != 0; } // O_SYNC has it, too
};

OpenFile openFileOf(const seccomp_notif& notice, unsigned int argument)
{
    const std::string list = "/proc/" + std::to_string(notice.pid) + "/fdinfo/" +
                             std::to_string(static_cast<int>(notice.data.args[argument]));
    const std::string text = beginningOf(list);
    OpenFile file;
    file.position = std::strtoull(fieldOf(text, "pos").c_str(), nullptr, 10);
    file.flags = std::strtoul(fieldOf(text, "flags").c_str(), nullptr, 8);
    return file;
}

// Nothing where it is known to the call alone.
std::optional<std::uint64_t> positionOf(const Call& call, const seccomp_notif& notice, const OpenFile& file)
{
    constexpr std::uint64_t kOwn = -1; // pwritev2's
    const bool isCopy =
        call.name == std::string_view("copy_file_range") || call.name == std::string_view("splice");
    if (isCopy && notice.data.args[3] != 0) {
        return std::nullopt;
    }
    const auto argument = static_cast<unsigned int>(call.positionArgument);
    const bool isGiven = call.positionArgument >= 0 && notice.data.args[argument] != kOwn;
    const fs::path link = descriptorLink(notice, call.descriptorArgument);
    std::error_code unknown;
    if (!isGiven && (file.flags & O_APPEND) != 0) {
        const std::uintmax_t size = fs::file_size(link, unknown);
        return unknown ? std::nullopt : std::optional<std::uint64_t>(size);
    }
    return isGiven ? notice.data.args[argument] : file.position;
}

// A write of its own kind.
bool isFlushedByItself(const Call& call, const seccomp_notif& notice)
{
    return call.name == std::string_view("pwritev2") && (notice.data.args[5] & (RWF_DSYNC | RWF_SYNC)) != 0;
}

// What only begins to write, or not even that, orders nothing.
bool isMsyncWithoutWaiting(const seccomp_notif& notice)
{
    static const int number = seccomp_syscall_resolve_name("msync"); // each call that waits is looked at
    return notice.data.nr == number && (notice.data.args[2] & MS_SYNC) == 0;
}

std::optional<HardwareWrite> hardwareWriteIn(const seccomp_notif& notice)
{
    HardwareWrite write;
    write.id = notice.id;
    write.thread = static_cast<pid_t>(notice.pid);
    std::copy(std::begin(notice.data.args), std::end(notice.data.args), write.arguments.begin());
    if (isMsyncWithoutWaiting(notice)) {
        write.call = kMsyncWithoutWaiting;
        return write;
    }
    if (const Flush* const flush = findCall<kFlushes>(notice)) {
        write.call = flush->name;
        return write;
    }
    const Call* const read = findCall<kReads>(notice);
    write.isRead = read != nullptr;
    if (const Call* const call = read != nullptr ? read : findCall<kCalls>(notice)) {
        const fs::path link = descriptorLink(notice, call->descriptorArgument);
        std::error_code gone;
        write.call = call->name;
        write.path = fs::read_symlink(link, gone);
        if (!isWatched(write)) {
            return std::nullopt;
        }
        write.bytes = bytesOf(*call, notice);
        const mode_t mode = modeOf(link);
        const bool isToDevice = S_ISCHR(mode) || S_ISBLK(mode);
        if ((call->devicesOnly && !isToDevice) || isPassage(mode)) {
            return std::nullopt;
        }
        const OpenFile file = openFileOf(notice, call->descriptorArgument);
        write.isLasting = isToDevice || file.isSynchronous() || isFlushedByItself(*call, notice);
        if (write.bytes > 0) {
            write.position = positionOf(*call, notice, file);
        }
    } else if (const PathCall* const pathCall = findCall<kPathCalls>(notice)) {
        write.call = pathCall->name;
        write.path = pathOf(*pathCall, notice);
        if (pathCall->hasSource) {
            const bool isAt = pathCall->directoryArgument != kWorkingDirectory;
            write.source = pathOf({pathCall->name, isAt ? 0 : kWorkingDirectory, isAt ? 1U : 0U}, notice);
        }
    }
    return isWatched(write) ? std::optional(write) : std::nullopt;
}

} // namespace

void submitToWatch(int socket, Reads reads)
{
    CallFilter filter(CallFilter::Others::kPass);
    hold(filter, kCalls);
    hold(filter, kPathCalls);
    hold(filter, kFlushes);
    if (reads == Reads::kHeld) {
        hold(filter, kReads);
    }
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
// The same open file, with the same position; none when the system does not let us have it.
common::UniqueFd copyOfDescriptor(pid_t thread, std::uint64_t descriptor)
{
    const std::string process = fieldOf(beginningOf("/proc/" + std::to_string(thread) + "/status"), "Tgid");
    const common::UniqueFd handle(syscall(SYS_pidfd_open, std::strtol(process.c_str(), nullptr, 10), 0));
    return common::UniqueFd(handle ? syscall(SYS_pidfd_getfd, handle.get(), static_cast<int>(descriptor), 0)
                                   : -1);
}

// A position that a call is given the address of, and moves; of a file's own there is none.
class GivenPosition
{
public:
    GivenPosition(pid_t process, std::uint64_t address) : process_(process), address_(address) {}
    bool isThere() const { return address_ != 0; }
    off_t read() const
    {
        off_t position = 0;
        const iovec here{&position, sizeof position};
        const iovec there{reinterpret_cast<void*>(address_), sizeof position}; // of that process
        return process_vm_readv(process_, &here, 1, &there, 1, 0) == sizeof position ? position : 0;
    }
    void move(ssize_t bytes) const
    {
        off_t position = read() + bytes;
        const iovec here{&position, sizeof position};
        const iovec there{reinterpret_cast<void*>(address_), sizeof position}; // of that process
        [[maybe_unused]] const ssize_t length = process_vm_writev(process_, &here, 1, &there, 1, 0);
    }

private:
    pid_t process_;
    std::uint64_t address_;
};

// Calls that write what another file has: which argument names that, and where in each of the two.
struct Transfer {
    const char* name;
    unsigned int source;
    unsigned int sourcePosition;
    unsigned int target;
    int targetPosition; // -1: always the file's own
};
constexpr Transfer kTransfers[] = {{"sendfile", 1, 2, 0, -1}, {"copy_file_range", 0, 1, 2, 3}};
constexpr std::uint64_t kMostSpoilt = 8 << 20; // bytes; a transfer may always do a part only
constexpr std::uint64_t kMostTaken = 1 << 30; // of another process's memory; who asks for more has not got it

const Transfer* transferOf(const HardwareWrite& write)
{
    const auto* const found =
        std::find_if(std::begin(kTransfers), std::end(kTransfers),
                     [&](const Transfer& transfer) { return write.call == transfer.name; });
    return found == std::end(kTransfers) ? nullptr : found;
}

// In the memory of the process that waits; empty when it cannot be had.
std::vector<char> memoryOf(const HardwareWrite& write)
{
    std::vector<iovec> there{{reinterpret_cast<void*>(write.arguments[1]), write.bytes}}; // of that process
    const bool isVector = write.call == "writev" || write.call.rfind("pwritev", 0) == 0;
    if (isVector) {
        there.resize(std::min<std::uint64_t>(write.arguments[2], IOV_MAX));
        const iovec here{there.data(), there.size() * sizeof(iovec)};
        const iovec list{reinterpret_cast<void*>(write.arguments[1]), here.iov_len};
        if (process_vm_readv(write.thread, &here, 1, &list, 1, 0) != static_cast<ssize_t>(here.iov_len)) {
            return {};
        }
    } else if (write.call != "write" && write.call != "pwrite64") {
        return {};
    }
    if (write.bytes > kMostTaken) {
        return {};
    }
    std::vector<char> data(write.bytes);
    const iovec here{data.data(), data.size()};
    const ssize_t length = process_vm_readv(write.thread, &here, 1, there.data(), there.size(), 0);
    return length == static_cast<ssize_t>(data.size()) ? data : std::vector<char>();
}

std::vector<char> sourceOf(const HardwareWrite& write, const Transfer& transfer)
{
    const common::UniqueFd source = copyOfDescriptor(write.thread, write.arguments[transfer.source]);
    const GivenPosition position(write.thread, write.arguments[transfer.sourcePosition]);
    std::vector<char> data(std::min(write.bytes, kMostSpoilt));
    const ssize_t length = position.isThere() ? pread(source.get(), data.data(), data.size(), position.read())
                                              : read(source.get(), data.data(), data.size());
    data.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (position.isThere()) {
        position.move(static_cast<ssize_t>(data.size()));
    }
    return data;
}

std::string around(const std::vector<char>& data, std::size_t middle)
{
    constexpr std::size_t kSide = 32;
    const std::size_t begin = middle - std::min(middle, kSide);
    return {data.data() + begin, std::min(data.size() - begin, 2 * kSide)};
}

ssize_t put(const HardwareWrite& write, int file, const std::vector<char>& data)
{
    const Transfer* const transfer = transferOf(write);
    if (transfer != nullptr && transfer->targetPosition >= 0) {
        const GivenPosition position(write.thread,
                                     write.arguments[static_cast<unsigned int>(transfer->targetPosition)]);
        if (position.isThere()) {
            const ssize_t written = pwrite(file, data.data(), data.size(), position.read());
            position.move(std::max<ssize_t>(written, 0));
            return written;
        }
    }
    const bool isAtOwn = transfer != nullptr || write.call == "write" || write.call == "writev";
    return isAtOwn ? ::write(file, data.data(), data.size())
                   : pwrite(file, data.data(), data.size(), static_cast<off_t>(write.arguments[3]));
}
} // namespace

std::optional<WriteWatch::Spoilt> WriteWatch::spoil(const HardwareWrite& write)
{
    const Transfer* const transfer = transferOf(write);
    const common::UniqueFd file =
        copyOfDescriptor(write.thread, write.arguments[transfer != nullptr ? transfer->target : 0]);
    std::vector<char> data;
    if (file) {
        data = transfer != nullptr ? sourceOf(write, *transfer) : memoryOf(write);
    }
    if (data.empty()) {
        return std::nullopt;
    }
    const std::size_t middle = data.size() / 2;
    Spoilt spoilt;
    spoilt.right = around(data, middle);
    data[middle] = static_cast<char>(~data[middle]);
    spoilt.wrong = around(data, middle);
    const ssize_t written = put(write, file.get(), data);
    const int error = written < 0 ? errno : 0;
    listener_.answer(write.id, error == 0 ? written : 0, error);
    return spoilt;
}

} // namespace vset
