// Where a run is hit, and by what. Written "STORY: THREAD/CALL#N=FAULT": what happens when that thread of the
// daemon is about to make that system call for the N-th time. Threads are numbered from 1 in the order of
// their first calls: the count within a thread stays the same from run to run, that of all does not.
#ifndef TESTS_PROOF_CRASHES_POINT_H
#define TESTS_PROOF_CRASHES_POINT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace proof
{

struct SystemCall {
    unsigned int thread = 0;
    std::string name;
    unsigned int occurrence = 0;
};
std::string textOf(const SystemCall& call);

enum class FaultKind {
    kKill,    // the daemon is killed
    kCut,     // the power of the set is cut, and all that was written is kept
    kLost,    // the power is cut, and what the chips got since their last flush is lost
    kTorn,    // the same, but the last of these writes is kept: chips may reorder them
    kFailing, // the call fails
};

struct Point {
    std::string story;
    SystemCall call;
    FaultKind fault = FaultKind::kKill;
    std::string error;        // of kFailing: "EIO"
    bool isUnflushed = false; // as in CountedCall; no part of its text

    bool isCut() const { return fault != FaultKind::kKill && fault != FaultKind::kFailing; }
};
std::string textOf(const Point& point);
Point pointFrom(const std::string& text); // std::invalid_argument: it is none

int errorNumber(const std::string& name); // of those that calls fail with here

// A call of a run that nothing hit.
struct CountedCall {
    SystemCall call;
    bool isUnflushed = false; // a chip has been written to since its last flush
};

std::vector<Point> pointsAt(const std::string& story, const CountedCall& counted);

// The same for the same text everywhere: shares points among machines, and chooses some.
std::uint64_t hashOf(const std::string& text);

// So many of them, spread: of each story and fault the same number, half of them in the middle of a write to
// a chip, and of each call in turn.
std::vector<Point> sampleOf(const std::vector<Point>& all, std::size_t size, unsigned int seed);

} // namespace proof

#endif
