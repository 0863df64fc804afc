#include "tests/proof/crashes/point.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace proof
{

namespace
{

struct FaultName {
    FaultKind kind;
    const char* name;
};
constexpr FaultName kFaultNames[] = {{FaultKind::kKill, "kill"},
                                     {FaultKind::kCut, "cut"},
                                     {FaultKind::kLost, "lost"},
                                     {FaultKind::kTorn, "torn"}};

struct ErrorName {
    const char* name;
    int number;
};
constexpr ErrorName kErrorNames[] = {
    {"EIO", EIO}, {"ENOSPC", ENOSPC}, {"ENOMEM", ENOMEM}, {"EINTR", EINTR}, {"EMFILE", EMFILE}};

// What each call may fail with. Those that are not here are left alone: a close() or munmap() that fails has
// done its work all the same, which a call that was not made has not.
struct Failing {
    const char* call;
    const char* errors;
};
constexpr Failing kFailing[] = {
    {"openat", "EIO ENOSPC ENOMEM EINTR EMFILE"},
    {"socket", "ENOMEM EMFILE"},
    {"socketpair", "ENOMEM EMFILE"},
    {"eventfd2", "ENOMEM EMFILE"},
    {"pipe2", "ENOMEM EMFILE"},
    {"inotify_init1", "ENOMEM EMFILE"},
    {"inotify_add_watch", "ENOSPC ENOMEM"},
    {"dup", "EMFILE"},
    {"read", "EIO EINTR"},
    {"pread64", "EIO EINTR"},
    {"write", "EIO ENOSPC EINTR"},
    {"pwrite64", "EIO ENOSPC EINTR"},
    {"writev", "EIO ENOSPC EINTR"},
    {"sendmsg", "ENOMEM EINTR"},
    {"sendto", "ENOMEM EINTR"},
    {"recvmsg", "ENOMEM EINTR"},
    {"recvfrom", "ENOMEM EINTR"},
    {"connect", "EINTR ENOMEM"},
    {"fsync", "EIO ENOSPC"},
    {"fdatasync", "EIO ENOSPC"},
    {"ftruncate", "EIO EINTR"},
    {"mkdir", "EIO ENOSPC ENOMEM"},
    {"unlink", "EIO ENOMEM"},
    {"rmdir", "EIO ENOMEM"},
    {"link", "EIO ENOSPC ENOMEM"},
    {"linkat", "EIO ENOSPC ENOMEM"},
    {"rename", "EIO ENOSPC ENOMEM"},
    {"readlink", "EIO ENOMEM"},
    {"newfstatat", "EIO ENOMEM"},
    {"fstat", "EIO ENOMEM"},
    {"statx", "EIO ENOMEM"},
    {"access", "EIO ENOMEM"},
    {"faccessat2", "EIO ENOMEM"},
    {"getdents64", "EIO ENOMEM"},
    {"flock", "EINTR ENOMEM"},
    {"fcntl", "EMFILE"},
    {"ioctl", "EIO"},
    {"mmap", "ENOMEM"},
    {"mremap", "ENOMEM"},
    {"mprotect", "ENOMEM"},
    {"clone", "ENOMEM"},
    {"clone3", "ENOMEM"},
};

std::vector<std::string> wordsOf(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

std::vector<std::string> errorsOf(const std::string& call)
{
    const auto* const row = std::find_if(std::begin(kFailing), std::end(kFailing),
                                         [&](const Failing& each) { return call == each.call; });
    return row == std::end(kFailing) ? std::vector<std::string>() : wordsOf(row->errors);
}

std::string faultText(const Point& point)
{
    if (point.fault == FaultKind::kFailing) {
        return point.error;
    }
    const auto* const name = std::find_if(std::begin(kFaultNames), std::end(kFaultNames),
                                          [&](const FaultName& each) { return each.kind == point.fault; });
    return name->name;
}

[[noreturn]] void refuse(const std::string& text)
{
    throw std::invalid_argument("\"" + text +
                                "\" is no point: \"standby: 5/pwrite64#3=cut\" is one, --list has all");
}

} // namespace

std::string textOf(const SystemCall& call)
{
    return std::to_string(call.thread) + "/" + call.name + "#" + std::to_string(call.occurrence);
}

std::string textOf(const Point& point)
{
    return point.story + ": " + textOf(point.call) + "=" + faultText(point);
}

Point pointFrom(const std::string& text)
{
    Point point;
    std::istringstream in(text);
    std::string fault;
    std::string name;
    char slash = 0;
    std::getline(in, point.story, ':');
    in >> point.call.thread >> slash;
    std::getline(in, name, '#');
    in >> point.call.occurrence;
    std::getline(in >> slash, fault);
    if (in.fail() || slash != '=' || name.empty() || point.call.thread == 0 || point.call.occurrence == 0) {
        refuse(text);
    }
    point.call.name = name;
    for (const FaultName& each : kFaultNames) {
        if (fault == each.name) {
            point.fault = each.kind;
            return point;
        }
    }
    if (errorNumber(fault) == 0) {
        refuse(text);
    }
    point.fault = FaultKind::kFailing;
    point.error = fault;
    return point;
}

int errorNumber(const std::string& name)
{
    const auto* const row = std::find_if(std::begin(kErrorNames), std::end(kErrorNames),
                                         [&](const ErrorName& each) { return name == each.name; });
    return row == std::end(kErrorNames) ? 0 : row->number;
}

std::vector<Point> pointsAt(const std::string& story, const CountedCall& counted)
{
    std::vector<Point> points;
    const auto add = [&](FaultKind fault, const std::string& error = "") {
        points.push_back({story, counted.call, fault, error, counted.isUnflushed});
    };
    add(FaultKind::kKill);
    add(FaultKind::kCut);
    if (counted.isUnflushed) {
        add(FaultKind::kLost);
        add(FaultKind::kTorn);
    }
    for (const std::string& error : errorsOf(counted.call.name)) {
        add(FaultKind::kFailing, error);
    }
    return points;
}

std::uint64_t hashOf(const std::string& text)
{
    std::uint64_t hash = 14695981039346656037U; // FNV-1a
    for (const unsigned char character : text) {
        hash = (hash ^ character) * 1099511628211U;
    }
    hash ^= hash >> 29; // texts that differ in their ends only are to differ in all bits
    hash *= 0xbf58476d1ce4e5b9U;
    return hash ^ (hash >> 32);
}

// ---- A sample ----

namespace
{

using Points = std::vector<Point>;

// Turn by turn one of each group, until there are `size`.
template <typename Group>
Points inTurns(std::vector<Group> groups, std::size_t size)
{
    Points chosen;
    for (std::size_t turn = 0; chosen.size() < size; ++turn) {
        bool isAnyLeft = false;
        for (const Group& group : groups) {
            if (turn < group.size() && chosen.size() < size) {
                chosen.push_back(group[turn]);
                isAnyLeft = true;
            }
        }
        if (!isAnyLeft) {
            break;
        }
    }
    return chosen;
}

template <typename Key, typename KeyOf>
std::vector<Points> groupsOf(const Points& points, KeyOf keyOf)
{
    std::map<Key, Points> groups;
    for (const Point& point : points) {
        groups[keyOf(point)].push_back(point);
    }
    std::vector<Points> values;
    for (auto& [key, group] : groups) {
        values.push_back(std::move(group));
    }
    return values;
}

} // namespace

std::vector<Point> sampleOf(const std::vector<Point>& all, std::size_t size, unsigned int seed)
{
    Points shuffled = all;
    std::vector<std::pair<std::uint64_t, Point>> keyed;
    keyed.reserve(all.size());
    for (const Point& point : all) {
        keyed.emplace_back(hashOf(textOf(point) + " " + std::to_string(seed)), point);
    }
    std::sort(keyed.begin(), keyed.end(),
              [](const auto& left, const auto& right) { return left.first < right.first; });
    std::transform(keyed.begin(), keyed.end(), shuffled.begin(),
                   [](const auto& each) { return each.second; });
    std::vector<Points> kinds =
        groupsOf<std::tuple<std::string, FaultKind, bool>>(shuffled, [](const Point& point) {
            return std::make_tuple(point.story, point.fault, point.isUnflushed);
        });
    for (Points& kind : kinds) {
        const std::size_t whole = kind.size();
        kind = inTurns(groupsOf<std::tuple<unsigned int, std::string, std::string>>(
                           kind,
                           [](const Point& point) {
                               return std::make_tuple(point.call.thread, point.call.name, point.error);
                           }),
                       whole);
    }
    return inTurns(kinds, size);
}

} // namespace proof
