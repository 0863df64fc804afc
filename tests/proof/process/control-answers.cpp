#include "tests/proof/process/control-answers.h"

#include <cerrno>
#include <cstring>

#include "include/tarnwick/control.h"

namespace proof::control
{

namespace
{

using failing::Result;

constexpr Result kRefusal[] = {{"-1", -1, 0}};
constexpr Result kIdentifiers[] = {
    {"empty", 0, 0}, {"foreign", 0, 0}, {"forbidden", 0, 0}, {"endless", 0, 0}};
constexpr Result kVersions[] = {{"-1", -1, 0}, {"endless", 0, 0}};
constexpr Result kVerdicts[] = {
    {"-1", -1, 0}, {"verdict=-1", -1, 0}, {"verdict=0", 0, 0}, {"verdict=2", 2, 0}};
constexpr Result kWrites[] = {{"7", 7, EIO}, {"late", 0, 0}, {"at-once", 0, 0}};
constexpr Result kTimes[] = {{"-1", -1, 0}, {"seconds=0", 0, 0}, {"seconds=-5", -5, 0}};
constexpr Result kProgressAnswers[] = {{"-1", -1, 0}, {"percent=101", 101, 0}, {"percent=-1", -1, 0}};

struct Answers {
    const char* function;
    const Result* results;
    size_t count;
};

template <size_t count>
constexpr Answers row(const char* function, const Result (&results)[count])
{
    return {function, results, count};
}

constexpr Answers kAnswers[] = {
    row("setContext", kRefusal),
    row("getEMPID", kIdentifiers),
    row("getActiveVersion", kVersions),
    row("checkVersion", kVerdicts),
    row("doUpdate", kWrites),
    row("allUpdateDone", kRefusal),
    row("doUpdate_decryption", kRefusal),
    row("getExpectedTime", kTimes),
    row("getUpdateProgress", kProgressAnswers),
};

bool is(const char* text, const char* other)
{
    return strcmp(text, other) == 0;
}

// Fills the buffer to its last byte, without an end.
void writeEndless(void* out)
{
    memset(out, 'a', TARNWICK_CONTROL_TEXT_SIZE);
    memcpy(out, "emp", 3);
}

void writeIdentifier(const char* name, char* out)
{
    if (is(name, "foreign")) {
        strcpy(out, "Alpha"); // which names no package
    } else if (is(name, "forbidden")) {
        strcpy(out, "emp-x");
    }
}

} // namespace

const Result* ask(const char* function, const char* module)
{
    for (const Answers& answers : kAnswers) {
        if (is(function, answers.function)) {
            return failing::ask({function, module, answers.results, answers.count});
        }
    }
    return nullptr;
}

int answer(const char* function, const Result& result, void* out)
{
    const auto value = static_cast<int>(result.value);
    if (is(result.name, "endless")) {
        writeEndless(out);
        return 0;
    }
    if (is(function, "getEMPID")) {
        writeIdentifier(result.name, static_cast<char*>(out));
        return 0;
    }
    if (strchr(result.name, '=') != nullptr) { // a number that it tells
        *static_cast<int*>(out) = value;
        return 0;
    }
    return value;
}

} // namespace proof::control
