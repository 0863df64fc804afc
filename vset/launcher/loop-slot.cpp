#include "vset/launcher/loop-slot.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace vset
{

namespace
{

constexpr unsigned int kFirstMinor = 1024;
constexpr unsigned int kMinorsOfSlot = 256;
constexpr unsigned int kSlots = 4000; // minor numbers have 20 bits

bool bindSlot(int socketFd, unsigned int slot)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "vset-slot-" + std::to_string(slot);
    std::memcpy(address.sun_path + 1, name.data(), name.size()); // a leading zero byte: abstract
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return bind(socketFd, reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

std::vector<unsigned int> kernelDevices(unsigned int base)
{
    std::vector<unsigned int> devices;
    for (unsigned int minor = base; minor < base + kMinorsOfSlot; ++minor) {
        if (access(("/sys/block/loop" + std::to_string(minor)).c_str(), F_OK) == 0) {
            devices.push_back(minor);
        }
    }
    return devices;
}

// What a program of the set has bound by itself, and left so, would be missing in the sets that follow.
void unbind(unsigned int minor)
{
    const UniqueFd device(open(("/dev/loop" + std::to_string(minor)).c_str(), O_RDONLY | O_CLOEXEC));
    if (device) {
        ioctl(device.get(), LOOP_CLR_FD, 0);
    }
}

void removeDevices(const std::vector<unsigned int>& devices)
{
    const UniqueFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    if (!control) {
        return;
    }
    for (const unsigned int minor : devices) {
        unbind(minor);
        ioctl(control.get(), LOOP_CTL_REMOVE, static_cast<long>(minor)); // a device still in use stays
    }
}

} // namespace

LoopSlot LoopSlot::take()
{
    UniqueFd holder(check(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "cannot make a socket"));
    for (unsigned int slot = 0; slot < kSlots; ++slot) {
        if (bindSlot(holder.get(), slot)) {
            return {std::move(holder), kFirstMinor + slot * kMinorsOfSlot};
        }
        if (errno != EADDRINUSE) {
            failWithErrno("cannot reserve a range of loop devices");
        }
    }
    throw Error("all ranges of loop devices are taken: end some running sets");
}

void LoopSlot::cleanInBackground() const
{
    const std::vector<unsigned int> devices = kernelDevices(base_);
    if (devices.empty() || fork() != 0) {
        return;
    }
    setsid();
    // Nobody shall wait for this child because it holds the caller's pipes.
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(null, stream);
    }
    removeDevices(devices);
    _exit(0);
}

} // namespace vset
