#include "write-watch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vset
{

namespace
{

namespace fs = std::filesystem;

struct Call {
    const char* name;
    unsigned int descriptorArgument; // which argument names the file
    bool devicesOnly;                // on a plain file it changes nothing that lasts
};
constexpr Call kCalls[] = {
    {"write", 0, false},     {"pwrite64", 0, false},  {"writev", 0, false}, {"pwritev", 0, false},
    {"pwritev2", 0, false},  {"sendfile", 0, false},  {"splice", 2, false}, {"copy_file_range", 2, false},
    {"ftruncate", 0, false}, {"fallocate", 0, false}, {"fsync", 0, false},  {"fdatasync", 0, false},
    {"ioctl", 0, true},
};

// Where programs leave notes, streams and locks: nothing there is hardware.
constexpr const char* kPassing[] = {"/tmp/",       "/run/",       "/proc/",       "/var/log/", "/dev/shm/",
                                    "/dev/mqueue", "/dev/pts/",   "/dev/tty",     "/dev/null", "/dev/zero",
                                    "/dev/full",   "/dev/random", "/dev/urandom", "/dev/fuse", "/memfd:"};

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void check(int result, const char* what)
{
    if (result >= 0)
        return;
    errno = -result; // as libseccomp reports it
    fail(what);
}

const Call* findCall(const seccomp_notif& notice)
{
    for (const Call& call : kCalls) {
        if (seccomp_syscall_resolve_name(call.name) == notice.data.nr)
            return &call;
    }
    return nullptr;
}

bool isHardware(const Call& call, const fs::path& link, const std::string& path)
{
    if (path.empty() || path.front() != '/')
        return false; // a pipe, a socket, an event
    for (const char* passing : kPassing) {
        if (path.compare(0, std::strlen(passing), passing) == 0)
            return false;
    }
    struct stat file {
    };
    if (!call.devicesOnly)
        return true;
    return stat(link.c_str(), &file) == 0 && (S_ISCHR(file.st_mode) || S_ISBLK(file.st_mode));
}

// ---- The listening end on its way to the watcher ----

struct DescriptorMessage {
    char byte = 0; // a message must have content
    iovec content{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};

    DescriptorMessage()
    {
        header.msg_iov = &content;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
};

void sendDescriptor(int socket, int descriptor)
{
    DescriptorMessage message;
    cmsghdr* const control = CMSG_FIRSTHDR(&message.header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(control), &descriptor, sizeof descriptor);
    if (sendmsg(socket, &message.header, MSG_NOSIGNAL) != 1)
        fail("cannot hand over the write filter");
}

int receiveDescriptor(int socket)
{
    DescriptorMessage message;
    ssize_t length = 0;
    do {
        length = recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    const cmsghdr* const control = length == 1 ? CMSG_FIRSTHDR(&message.header) : nullptr;
    if (control == nullptr || control->cmsg_type != SCM_RIGHTS) {
        errno = length < 0 ? errno : ECONNRESET;
        fail("the process to be watched has not handed over its write filter");
    }
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(control), sizeof descriptor);
    return descriptor;
}

} // namespace

void submitToWatch(int socket)
{
    const std::unique_ptr<void, decltype(&seccomp_release)> filter(seccomp_init(SCMP_ACT_ALLOW),
                                                                   &seccomp_release);
    if (!filter)
        fail("cannot make the write filter");
    for (const Call& call : kCalls)
        check(seccomp_rule_add(filter.get(), SCMP_ACT_NOTIFY, seccomp_syscall_resolve_name(call.name), 0),
              "cannot make the write filter");
    check(seccomp_load(filter.get()),
          "this system does not let a process's writes be watched (seccomp user notification)");
    const int listener = seccomp_notify_fd(filter.get());
    check(listener, "cannot get the write filter's listener");
    sendDescriptor(socket, listener);
    close(listener);
}

WriteWatch::WriteWatch(int socket) : listener_(receiveDescriptor(socket)) {}

WriteWatch::~WriteWatch()
{
    close(listener_);
}

std::optional<HardwareWrite> WriteWatch::next()
{
    seccomp_notif notice{}; // the kernel insists on zeros
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &notice) != 0) {
        if (errno == ENOENT || errno == EINTR)
            return std::nullopt; // it was killed while it waited
        fail("cannot watch the process");
    }
    const Call* const call = findCall(notice);
    if (call != nullptr) {
        const fs::path link = "/proc/" + std::to_string(notice.pid) + "/fd/" +
                              std::to_string(static_cast<int>(notice.data.args[call->descriptorArgument]));
        std::error_code gone;
        const std::string path = fs::read_symlink(link, gone);
        if (!gone && isHardware(*call, link, path))
            return HardwareWrite{notice.id, static_cast<pid_t>(notice.pid), call->name, path};
    }
    allow(notice.id);
    return std::nullopt;
}

void WriteWatch::allow(std::uint64_t id)
{
    seccomp_notif_resp answer{};
    answer.id = id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &answer) != 0 && errno != ENOENT)
        fail("cannot let a write pass");
}

} // namespace vset
