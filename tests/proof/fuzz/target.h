// What a fuzzing target is: production code that is handed an input of anybody's making. It may refuse it; it
// must neither crash, hang, nor break what its header promises.
//
// One source in targets/ for each, named after it. The same source is built into a fuzzer, which makes inputs
// up, and into the program that replays those that are kept.
#ifndef TESTS_PROOF_FUZZ_TARGET_H
#define TESTS_PROOF_FUZZ_TARGET_H

#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz
{

// Registers itself; to be defined once in a target's source, with static storage.
struct Target {
    using Run = void (*)(std::string_view input);

    Target(const char* itsName, Run itsRun);

    const char* const name; // as the source's
    const Run run;
    const Target* const next; // of those that were registered
};

const Target* firstTarget();

// A promise was broken: says which, and aborts, which is what makes the input a finding.
[[noreturn]] void fail(const std::string& what);

inline void require(bool holds, const char* what)
{
    if (!holds) {
        fail(what);
    }
}

// Takes an input apart from its front. Behind its end there are zeros.
class Reader
{
public:
    explicit Reader(std::string_view input) : left(input) {}

    uint8_t byte();
    uint32_t number(); // four bytes, the lowest first
    bool flag() { return (byte() & 1) != 0; }
    std::string_view bytes(size_t count); // or as many as there are
    std::string_view rest();

private:
    std::string_view left;
};

// The path of a file with this content, in a directory of the process; the next one of that name takes its
// place.
std::string fileWith(const std::string& name, std::string_view content);

} // namespace fuzz

#endif
