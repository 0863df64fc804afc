#include "platform/check/trials/tracer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "common/process/program.h"

// By the C library's own header these are an enumeration of it, and the kernel's is not to be included with
// it.
namespace
{

constexpr std::size_t kMostWritten = std::size_t{16} << 20;

// ---- Memory of the process ----

std::string bytesAt(pid_t process, std::uint64_t address, std::size_t size)
{
    std::string bytes(std::min(size, kMostWritten), '\0');
    const iovec local = {bytes.data(), bytes.size()};
    const iovec remote = {reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), bytes.size()};
    const ssize_t count = process_vm_readv(process, &local, 1, &remote, 1, 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

template <typename T>
std::vector<T> arrayAt(pid_t process, std::uint64_t address, std::uint64_t count)
{
    constexpr std::uint64_t kMost = 1024;
    const std::string bytes = bytesAt(process, address, sizeof(T) * std::min(count, kMost));
    const auto* const begin = reinterpret_cast<const T*>(bytes.data());
    return {begin, begin + bytes.size() / sizeof(T)};
}

void appendVectors(std::string& written, pid_t process, std::uint64_t address, std::uint64_t count)
{
    for (const iovec& part : arrayAt<iovec>(process, address, count)) {
        written += bytesAt(process, reinterpret_cast<std::uintptr_t>(part.iov_base), part.iov_len);
    }
}

void appendMessages(std::string& written, pid_t process, const std::vector<msghdr>& messages)
{
    for (const msghdr& message : messages) {
        appendVectors(written, process, reinterpret_cast<std::uintptr_t>(message.msg_iov),
                      message.msg_iovlen);
    }
}

// What was handed over, of each descriptor by itself: a record may leave in two calls where a buffer comes
// round, and is whole where it goes to.
class Streams
{
public:
    void add(pid_t thread, const __ptrace_syscall_info& info)
    {
        const std::string bytes = handedOver(thread, info);
        if (!bytes.empty()) {
            size_ += bytes.size();
            streams_[static_cast<int>(info.entry.args[0])] += bytes;
        }
    }
    bool isFull() const { return size_ >= kMostWritten; }
    std::string all() const
    {
        std::string bytes;
        for (const auto& one : streams_) {
            bytes += one.second + '\n';
        }
        return bytes;
    }

private:
    static std::string handedOver(pid_t thread, const __ptrace_syscall_info& info);

    std::map<int, std::string> streams_;
    std::size_t size_ = 0;
};

std::string Streams::handedOver(pid_t thread, const __ptrace_syscall_info& info)
{
    const std::uint64_t* const arguments = info.entry.args;
    std::string written;
    switch (info.entry.nr) {
    case SYS_write:
    case SYS_pwrite64:
    case SYS_sendto:
    case SYS_mq_timedsend:
        return bytesAt(thread, arguments[1], arguments[2]);
    case SYS_writev:
    case SYS_pwritev:
    case SYS_pwritev2:
    case SYS_vmsplice:
        appendVectors(written, thread, arguments[1], arguments[2]);
        return written;
#ifdef SYS_msgsnd
    case SYS_msgsnd:
        return bytesAt(thread, arguments[1] + sizeof(long), arguments[2]);
#endif
    case SYS_sendmsg:
        appendMessages(written, thread, arrayAt<msghdr>(thread, arguments[1], 1));
        return written;
    case SYS_sendmmsg: {
        std::vector<msghdr> messages;
        for (const mmsghdr& one : arrayAt<mmsghdr>(thread, arguments[1], arguments[2])) {
            messages.push_back(one.msg_hdr);
        }
        appendMessages(written, thread, messages);
        return written;
    }
    default:
        return written;
    }
}

// ---- Texts that were kept ----

struct Area {
    std::uint64_t begin;
    std::uint64_t end;
    bool isShared;
};

std::vector<Area> writableAreas(pid_t process)
{
    std::ifstream in("/proc/" + std::to_string(process) + "/maps");
    std::vector<Area> areas;
    for (std::string line; std::getline(in, line);) {
        Area area = {};
        char mode[5] = "";
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &area.begin, &area.end, mode) == 3 && mode[1] == 'w') {
            area.isShared = mode[3] == 's';
            areas.push_back(area);
        }
    }
    return areas;
}

// For those from `first` to the one before `end`.
void lookFor(platformcheck::Traced& traced, pid_t process, const std::vector<std::string>& texts,
             std::size_t first, std::size_t end)
{
    constexpr std::size_t kPiece = std::size_t{1} << 20;
    constexpr std::size_t kOverlap = 4096; // texts are shorter
    for (const Area& area : writableAreas(process)) {
        for (std::uint64_t at = area.begin; at < area.end; at += kPiece) {
            const std::size_t size = std::min<std::uint64_t>(kPiece + kOverlap, area.end - at);
            const std::string bytes = bytesAt(process, at, size);
            for (std::size_t index = first; index < end; ++index) {
                if (bytes.find(texts[index]) != std::string::npos) {
                    (area.isShared ? traced.isShared : traced.isPrivate)[index] = true;
                }
            }
        }
    }
}

// ---- The process ----

pid_t startTraced(const std::vector<std::string>& arguments)
{
    const std::vector<char*> words = common::argumentsOf(arguments);
    const pid_t process = fork();
    if (process == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0) {
            raise(SIGSTOP);
        }
        execv(words[0], words.data());
        _exit(127);
    }
    return process;
}

// A call that no kernel knows, by which a look is asked for.
constexpr int kAskForLook = 0x74726c6b;

int signalOf(int status)
{
    const int stopped = WSTOPSIG(status);
    const bool isOurs =
        status >> 16 != 0 || stopped == (SIGTRAP | 0x80) || stopped == SIGTRAP || stopped == SIGSTOP;
    return isOurs ? 0 : stopped;
}

} // namespace

namespace platformcheck
{

Traced traceProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& texts)
{
    Traced traced;
    Streams streams;
    traced.isShared.resize(texts.size());
    traced.isPrivate.resize(texts.size());
    const pid_t leader = startTraced(arguments);
    int status = 0;
    if (leader < 0 || waitpid(leader, &status, 0) != leader) {
        return traced;
    }
    constexpr long kOptions =
        PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL;
    if (!WIFSTOPPED(status) || ptrace(PTRACE_SETOPTIONS, leader, nullptr, kOptions) != 0) {
        waitpid(leader, &traced.status, 0);
        return traced;
    }
    traced.isTraced = true;
    ptrace(PTRACE_SYSCALL, leader, nullptr, nullptr);
    while (true) {
        const pid_t thread = waitpid(-1, &status, __WALL);
        if (thread < 0 && errno != EINTR) {
            return traced;
        }
        if (thread == leader && !WIFSTOPPED(status)) {
            traced.status = status;
            traced.written = streams.all();
            traced.isCut = streams.isFull();
            return traced;
        }
        if (thread <= 0 || !WIFSTOPPED(status)) {
            continue;
        }
        __ptrace_syscall_info info = {};
        if (WSTOPSIG(status) == (SIGTRAP | 0x80) &&
            ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) > 0 &&
            info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            if (info.entry.nr == SYS_prctl && info.entry.args[0] == kAskForLook) {
                const std::size_t text = std::min<std::size_t>(info.entry.args[1], texts.size());
                lookFor(traced, leader, texts, text, std::min(text + 1, texts.size()));
            } else if (!streams.isFull()) {
                streams.add(thread, info);
            }
        } else if (thread == leader && status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8)) {
            lookFor(traced, leader, texts, 0, texts.size());
        }
        ptrace(PTRACE_SYSCALL, thread, nullptr, signalOf(status));
    }
}

void askForLook(std::size_t text)
{
    const int before = errno;
    syscall(SYS_prctl, kAskForLook, text, 0, 0, 0);
    errno = before;
}

} // namespace platformcheck
