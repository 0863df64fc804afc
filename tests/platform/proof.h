// Proofs that a platform keeps its rules, one for each platform of broken/, by which it is known that each of
// those breaks the rule that it says, and that the sound one and those of unusual/ do not.
//
// They look into the virtual set behind the platform (its locks, launches, log), which a check on a
// television cannot.
#ifndef TESTS_PLATFORM_PROOF_H
#define TESTS_PLATFORM_PROOF_H

#include <functional>
#include <string>
#include <vector>

namespace proof
{

// How the process of a proof ends.
inline constexpr int kKept = 40;   // the rule is kept
inline constexpr int kBroken = 41; // it is not, and stdout says what was seen
inline constexpr int kHangs = 137; // killed after its time; signals as a shell tells them: 128 + number

struct Proof {
    const char* platform;              // of broken/, without its suffix
    std::function<std::string()> look; // "" when the rule is kept, else what was seen
    int broken = kBroken;              // how it ends on that platform
};

const std::vector<Proof>& settingsProofs();
const std::vector<Proof>& powerProofs();
const std::vector<Proof>& mountProofs();
const std::vector<Proof>& logProofs();
const std::vector<Proof>& serviceProofs(); // launches, properties, flags, watchdog, packages
const std::vector<Proof>& processProofs();

// ---- What they have in common ----

inline bool isPipeSignalIgnored = false; // at the start of this process

inline constexpr int kLong = 2000; // milliseconds in which what comes has come

// Runs the default main context on this thread until `condition` is true, for so long at most; gives what it
// is then.
bool until(const std::function<bool()>& condition, int milliseconds);
inline void runLoop(int milliseconds)
{
    until([] { return false; }, milliseconds);
}

// Whether what is counted grows by more than `most` with twenty more calls, once twenty are done.
std::string growth(const char* what, const std::function<long()>& count, long most,
                   const std::function<void()>& call);
long openDescriptors();
long threads();
long residentKilobytes();

// What another process of this program does: a flag is raised, a line is logged before quick_exit.
void inAnotherProcess(const std::string& what, const std::string& text);

} // namespace proof

#endif
