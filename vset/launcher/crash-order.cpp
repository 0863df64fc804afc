#include "vset/launcher/crash-order.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace vset
{

namespace
{

constexpr const char* kSocketName = "vset-orders"; // in the set's /run
constexpr size_t kLongestMessage = 256;
constexpr timeval kPatienceWithAnswer{5, 0};

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

UniqueFd makeSocket()
{
    return UniqueFd(check(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0), "cannot make a socket"));
}

// "SERVICE MILLISECONDS"; nothing for another text.
std::optional<CrashOrder> parse(const std::string& text)
{
    std::istringstream words(text);
    CrashOrder order;
    int64_t downtime = -1;
    words >> order.service >> downtime;
    if (words.fail() || downtime < 0 || downtime > kLongestDowntime.count()) {
        return std::nullopt;
    }
    order.downtime = std::chrono::milliseconds(downtime);
    return order;
}

// A socket with an address of its own that the answer finds, connected to the set's.
UniqueFd reach(const SetDirectory& set)
{
    UniqueFd sender = makeSocket();
    const sockaddr_un own{AF_UNIX, {}};
    check(bind(sender.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own.sun_family),
          "cannot name a socket");
    // However long the set's path is: an address has room for a short one only.
    const UniqueFd run(open((set.root() / "run").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const sockaddr_un address = addressOf("/proc/self/fd/" + std::to_string(run.get()) + "/" + kSocketName);
    if (connect(sender.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        failWithErrno("cannot reach set " + set.path().string() +
                      " (it belongs to another user? then use sudo)");
    }
    check(setsockopt(sender.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatienceWithAnswer, sizeof kPatienceWithAnswer),
          "cannot limit a wait");
    return sender;
}

} // namespace

CrashOrders::CrashOrders() : socket_(makeSocket())
{
    const sockaddr_un address = addressOf(std::string("/run/") + kSocketName);
    check(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "cannot make /run/" + std::string(kSocketName));
}

void CrashOrders::take(const std::function<std::string(const CrashOrder&)>& carryOut) const
{
    char text[kLongestMessage];
    sockaddr_un sender{};
    socklen_t size = sizeof sender;
    const ssize_t length =
        recvfrom(socket_.get(), text, sizeof text, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&sender), &size);
    if (length < 0) {
        return;
    }
    const std::optional<CrashOrder> order = parse(std::string(text, static_cast<size_t>(length)));
    const std::string fault = order ? carryOut(*order) : "the set's launcher does not understand this order";
    sendto(socket_.get(), fault.data(), fault.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&sender), size); // one that is gone wants no answer
}

void orderCrash(const fs::path& path, const CrashOrder& order)
{
    const SetDirectory set = SetDirectory::open(path);
    set.running(); // or says why not
    const UniqueFd sender = reach(set);
    const std::string text = order.service + " " + std::to_string(order.downtime.count());
    check(send(sender.get(), text.data(), text.size(), MSG_NOSIGNAL), "cannot reach the set");
    char fault[kLongestMessage];
    const ssize_t length = recv(sender.get(), fault, sizeof fault, 0);
    check(length, "the set does not answer");
    if (length > 0) {
        throw Error(std::string(fault, static_cast<size_t>(length)));
    }
}

} // namespace vset
