#include "vset/write-watch/call-listener.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <system_error>
#include <unistd.h>

namespace vset
{

namespace
{

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

void check(int result, const char* what)
{
    if (result >= 0) {
        return;
    }
    errno = -result; // as libseccomp reports it
    fail(what);
}

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
    if (sendmsg(socket, &message.header, MSG_NOSIGNAL) != 1) {
        fail("cannot hand over the filter");
    }
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
        fail("the process to be watched has not handed over its filter");
    }
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(control), sizeof descriptor);
    return descriptor;
}

// Who waits is woken on the processor of who has made it wait, and goes on there: one of the two sleeps at
// any time. A wish: a kernel before 6.6 does not know it.
void askForQuickTurns(int listener)
{
#ifndef SECCOMP_IOCTL_NOTIF_SET_FLAGS // in headers as old
#define SECCOMP_IOCTL_NOTIF_SET_FLAGS SECCOMP_IOW(4, __u64)
#define SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP (1UL << 0)
#endif
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SET_FLAGS, SECCOMP_USER_NOTIF_FD_SYNC_WAKE_UP);
}

} // namespace

// ---- In the process that is watched ----

CallFilter::CallFilter(Others others)
    : filter_(seccomp_init(others == Others::kHeld ? SCMP_ACT_NOTIFY : SCMP_ACT_ALLOW), &seccomp_release),
      others_(others)
{
    if (!filter_) {
        fail("cannot make the filter");
    }
}

void CallFilter::hold(const char* call)
{
    check(seccomp_rule_add(filter_.get(), SCMP_ACT_NOTIFY, seccomp_syscall_resolve_name(call), 0),
          "cannot make the filter");
}

void CallFilter::pass(const char* call)
{
    check(seccomp_rule_add(filter_.get(), SCMP_ACT_ALLOW, seccomp_syscall_resolve_name(call), 0),
          "cannot make the filter");
}

void CallFilter::submit(int socket)
{
    // Nobody listens before the listener is handed over: that call has to pass, by a number of its own.
    constexpr int kOutOfTheWay = 1000;
    const int way = fcntl(socket, F_DUPFD_CLOEXEC, kOutOfTheWay);
    if (way < 0) {
        fail("cannot hand over the filter");
    }
    if (others_ == Others::kHeld) {
        const scmp_arg_cmp isWay{0, SCMP_CMP_EQ, static_cast<scmp_datum_t>(way), 0};
        check(seccomp_rule_add_array(filter_.get(), SCMP_ACT_ALLOW, SCMP_SYS(sendmsg), 1, &isWay),
              "cannot make the filter");
    }
    check(seccomp_load(filter_.get()),
          "this system does not let a process's calls be watched (seccomp user notification)");
    const int listener = seccomp_notify_fd(filter_.get());
    check(listener, "cannot get the filter's listener");
    sendDescriptor(way, listener);
    close(listener);
    close(way);
}

// ---- In the watcher ----

CallListener::CallListener(int socket) : descriptor_(receiveDescriptor(socket))
{
    askForQuickTurns(descriptor_);
}

CallListener::~CallListener()
{
    close(descriptor_);
}

std::optional<seccomp_notif> CallListener::next() const
{
    seccomp_notif notice{}; // the kernel insists on zeros
    if (ioctl(descriptor_, SECCOMP_IOCTL_NOTIF_RECV, &notice) == 0) {
        return notice;
    }
    if (errno != ENOENT && errno != EINTR) {
        fail("cannot watch the process");
    }
    return std::nullopt; // it was killed while it waited
}

void CallListener::letPass(std::uint64_t id) const
{
    seccomp_notif_resp answer{};
    answer.id = id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (ioctl(descriptor_, SECCOMP_IOCTL_NOTIF_SEND, &answer) != 0 && errno != ENOENT) {
        fail("cannot let a call pass");
    }
}

void CallListener::answer(std::uint64_t id, std::int64_t value, int error) const
{
    seccomp_notif_resp answer{};
    answer.id = id;
    answer.val = value;
    answer.error = -error;
    if (ioctl(descriptor_, SECCOMP_IOCTL_NOTIF_SEND, &answer) != 0 && errno != ENOENT) {
        fail("cannot answer a call");
    }
}

} // namespace vset
