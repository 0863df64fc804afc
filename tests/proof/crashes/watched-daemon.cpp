// Stands in the daemon's place in the set: has itself watched, if somebody waits for that, and becomes the
// daemon, which is as it was built.
#include <cstdio>
#include <cstring>
#include <exception>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/files/unique-fd.h"
#include "tests/proof/crashes/call-guard.h"

namespace
{

common::UniqueFd reachGuard()
{
    common::UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, proof::kGuardSocket, sizeof address.sun_path - 1);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        socket.reset(); // in this boot it runs as ever
    }
    return socket;
}

} // namespace

int main(int, char** argv)
{
    try {
        if (const common::UniqueFd guard = reachGuard()) {
            proof::watchedFilter().submit(guard.get());
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "watched-daemon: %s\n", error.what());
        return 126;
    }
    execv(proof::kRealDaemon, argv);
    std::perror(proof::kRealDaemon);
    return 127;
}
