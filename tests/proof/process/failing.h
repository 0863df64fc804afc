// Calls of the daemon that are made to fail. Whoever stands in for such a call asks here first; without a
// judge nothing fails. Only what the daemon itself calls is asked about: what the test's own code calls on
// the way (a list that grows, a note that is written) is aside.
#ifndef TESTS_PROOF_PROCESS_FAILING_H
#define TESTS_PROOF_PROCESS_FAILING_H

#include <cstddef>
#include <cstdint>

namespace proof::failing
{

// One of the results that a failing call may have.
struct Result {
    const char* name; // as the line that repeats a run has it
    int64_t value;
    int error; // errno after it; 0: left alone
};

struct Call {
    const char* name;
    const char* object; // what it is made on, for example a path; may be null
    const Result* results;
    size_t count;
};

// Tells the result of this call; null: it is made as usual.
using Judge = const Result* (*)(const Call& call);
void setJudge(Judge judge);

const Result* ask(const Call& call); // sets errno as the failing call does

template <size_t count>
const Result* ask(const char* name, const Result (&results)[count], const char* object = nullptr)
{
    return ask({name, object, results, count});
}

// More than 0: the test's own code runs. Each thread of the machine has its own.
int depth();
void setDepth(int depth);

// The test's own code, from here to the end of the scope.
class Aside
{
public:
    Aside() : before(depth()) { setDepth(before + 1); }
    ~Aside() { setDepth(before); }
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;

private:
    int before;
};

// The daemon's, called by the test's own.
class Inside
{
public:
    Inside() : before(depth()) { setDepth(0); }
    ~Inside() { setDepth(before); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    int before;
};

} // namespace proof::failing

#endif
