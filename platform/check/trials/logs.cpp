// norlog.h and trace_logger.h. What is logged is seen by what a process of its own hands to the system,
// because a set keeps its log where it likes.

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "norlog.h"
#include "platform/check/trials/tracer.h"
#include "platform/check/trials/trial.h"
#include "trace_logger.h"

namespace platformcheck
{

namespace
{

// Not __FILE__, which would tell where this program was built.
constexpr const char* kLogTrials = "logs.cpp";

constexpr int kSystemBuffer = 2;
constexpr int kDebug = 3;
constexpr int kError = 6;
constexpr std::size_t kLongText = 6000;

// The values of the records; their texts must not stand in the memory of who logs.
struct Values {
    unsigned int token;
    std::string longText = std::string(kLongText, 'L');

    int negative() const { return -static_cast<int>(token) - 7; }
    unsigned long long big() const { return 10'000'000'000'000ULL + token; }
};

// Which of the texts tells what.
enum Text : std::size_t { kPlain, kTail, kReason, kPercent, kTexts };

struct Expectation {
    FindingId otherwise;
    const char* what;
};
constexpr Expectation kExpected[kTexts] = {
    {FindingId::WrongText, "a record of one line, with numbers and a word"},
    {FindingId::RecordCut, "the end of a record of 6000 characters"},
    {FindingId::WrongErrno, "a record with \"%m\" and errno EXDEV"},
    {FindingId::WrongText, "a record with a value that has \"%s%n%d\" in it"},
};

std::string printed(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string printed(const char* format, ...)
{
    char text[512];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    return text;
}

std::vector<std::string> expectedTexts(const Values& values)
{
    std::vector<std::string> texts(kTexts);
    texts[kPlain] = printed("n=%d u=%llu s=%s %5.2f|", values.negative(), values.big(), "word", 2.5);
    texts[kTail] = printed("LLLLLLLL,%u,%d,end", values.token, values.negative());
    texts[kReason] = printed("reason %s, %u", std::strerror(EXDEV), values.token);
    texts[kPercent] = printed("%u=%s.", values.token, "%s%n%d");
    return texts;
}

// Where buffers end.
std::vector<std::size_t> edgeLengths()
{
    std::vector<std::size_t> lengths;
    for (std::size_t power = 128; power <= 8192; power *= 2) {
        for (std::size_t length = power - 2; length <= power + 1; ++length) {
            lengths.push_back(length);
        }
    }
    return lengths;
}

// Its end is its own.
std::string edgeText(std::size_t length, unsigned int token)
{
    const std::string end = printed("%zu of %u.", length, token);
    return std::string(length - end.size(), 'E') + end;
}

// ---- Who logs ----

constexpr int kHeld = EXDEV; // errno, as a record meets it

// `after` is read when the record has been made.
void judgeRecord(Trial& trial, const char* name, int result, const int& after)
{
    trial.require(after == kHeld, FindingId::ErrnoChanged,
                  std::string(name) + ": from " + std::to_string(kHeld) + " to " + std::to_string(after));
    trial.require(result >= 0, FindingId::NotLogged, "the result is " + std::to_string(result));
}

int errnoAfter = 0;

// A macro, as the daemon's is: the compiler looks at format and values.
#define CHECKED_RECORD(trial, isTrace, priority, ...)                                                        \
    judgeRecord(                                                                                             \
        trial, isTrace ? "TraceLogger::record" : "__norlog_print",                                           \
        trial.call(isTrace ? "TraceLogger::record" : "__norlog_print",                                       \
                   [&] {                                                                                     \
                       int result = 0;                                                                       \
                       errno = kHeld;                                                                        \
                       if (isTrace) {                                                                        \
                           TraceLogger::record(priority, kLogTrials, __func__, __LINE__, __VA_ARGS__);       \
                       } else {                                                                              \
                           result = __norlog_print(kSystemBuffer, priority, "FWUPDATE", __VA_ARGS__);        \
                       }                                                                                     \
                       errnoAfter = errno;                                                                   \
                       return result;                                                                        \
                   }),                                                                                       \
        errnoAfter)

// Two threads at a time, each with records of its own.
constexpr int kThreads = 2;
constexpr int kRecordsOfThread = 120;
constexpr const char* kThreadText = "of those that are written beside others, with some length to it";

void logOnThreads(Trial& trial, bool isTrace, unsigned int token)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([=, &trial] {
            for (int number = 0; number < kRecordsOfThread; ++number) {
                trial.call(isTrace ? "TraceLogger::record" : "__norlog_print", [&] {
                    if (isTrace) {
                        TraceLogger::record(kError, kLogTrials, __func__, __LINE__,
                                            "thread %d, %u, record %03d %s end", thread, token, number,
                                            kThreadText);
                        return 0;
                    }
                    return __norlog_print(kSystemBuffer, kError, "FWUPDATE",
                                          "thread %d, %u, record %03d %s end", thread, token, number,
                                          kThreadText);
                });
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The end is the daemon's: a moment later, by quick_exit.
void logAll(Trial& trial, bool isTrace)
{
    const Values values{trial.options().token};
    CHECKED_RECORD(trial, isTrace, kError, "reason %m, %u", values.token); // the very first: it opens the log
    CHECKED_RECORD(trial, isTrace, kError, "n=%d u=%llu s=%s %5.2f|", values.negative(), values.big(), "word",
                   2.5);
    CHECKED_RECORD(trial, isTrace, kError, "%s,%u,%d,end", values.longText.c_str(), values.token,
                   values.negative());
    CHECKED_RECORD(trial, isTrace, kError, "%u=%s.", values.token, "%s%n%d");
    for (int priority = kDebug; priority <= kError; ++priority) {
        CHECKED_RECORD(trial, isTrace, priority, "early, priority %d, %u.", priority, values.token);
    }
    CHECKED_RECORD(trial, isTrace, kError, "a record of the gravest priority, which may take others with it");
    for (const std::size_t length : edgeLengths()) {
        CHECKED_RECORD(trial, isTrace, kError, "%s", edgeText(length, values.token).c_str());
    }
    logOnThreads(trial, isTrace, values.token);
    for (int priority = kError; priority >= kDebug; --priority) {
        CHECKED_RECORD(trial, isTrace, priority, "late, priority %d, %u.", priority, values.token);
    }
    trial.iterate(500ms);
    std::quick_exit(0);
}

void logPlatform(Trial& trial)
{
    logAll(trial, false);
}

void logTrace(Trial& trial)
{
    logAll(trial, true);
}

// ---- Who watches ----

void judgeTexts(Trial& trial, const Traced& traced, const std::vector<std::string>& texts, bool isTrace)
{
    const auto isSeen = [&](std::size_t index) {
        return traced.written.find(texts[index]) != std::string::npos || traced.isShared[index] ||
               (isTrace && traced.isPrivate[index]);
    };
    bool isAnySeen = false;
    bool isAnyKept = false;
    for (std::size_t index = 0; index < kTexts; ++index) {
        isAnySeen = isAnySeen || isSeen(index);
        isAnyKept = isAnyKept || traced.isPrivate[index];
    }
    if (!isAnySeen) {
        trial.found(isAnyKept ? FindingId::LostAtTheEnd : FindingId::RecordLost,
                    isTrace ? "TraceLogger::record" : "__norlog_print");
        return;
    }
    for (std::size_t index = 0; index < kTexts; ++index) {
        if (!isSeen(index)) {
            trial.found(kExpected[index].otherwise,
                        std::string(isTrace ? "TraceLogger::record" : "__norlog_print") + ": " +
                            kExpected[index].what + " is not as \"" + texts[index] +
                            "\" in what was written");
        }
    }
}

// Only where records leave the process: memory keeps the latest only.
void judgeThreads(Trial& trial, const Traced& traced, const std::vector<std::string>& texts, bool isTrace)
{
    if (traced.written.find(texts[kPlain]) == std::string::npos) {
        return;
    }
    int missing = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int number = 0; number < kRecordsOfThread; ++number) {
            const std::string text = printed("thread %d, %u, record %03d %s end", thread,
                                             trial.options().token, number, kThreadText);
            missing += traced.written.find(text) == std::string::npos ? 1 : 0;
        }
    }
    trial.require(missing == 0, FindingId::RecordsMixed,
                  std::string(isTrace ? "TraceLogger::record" : "__norlog_print") + ": of " +
                      std::to_string(kThreads * kRecordsOfThread) + " records of two threads " +
                      std::to_string(missing) + " are not whole in what was written");
}

// Only where a long text is written in one piece.
void judgeEdges(Trial& trial, const Traced& traced, const Values& values, const char* logger)
{
    if (traced.written.find(values.longText) == std::string::npos) {
        return;
    }
    std::string missing;
    for (const std::size_t length : edgeLengths()) {
        if (traced.written.find(edgeText(length, values.token)) == std::string::npos) {
            missing += (missing.empty() ? "" : ", ") + std::to_string(length);
        }
    }
    trial.require(missing.empty(), FindingId::RecordCut,
                  std::string(logger) +
                      ": not whole in what was written: a text of so many characters: " + missing);
}

// A priority that is left out altogether is the set's own choice.
void judgeLastRecords(Trial& trial, const Traced& traced, const char* logger)
{
    for (int priority = kDebug; priority <= kError; ++priority) {
        const auto isWritten = [&](const char* when) {
            return traced.written.find(printed("%s, priority %d, %u.", when, priority,
                                               trial.options().token)) != std::string::npos;
        };
        trial.require(!isWritten("early") || isWritten("late"), FindingId::LostAtTheEnd,
                      std::string(logger) + ": the last record of priority " + std::to_string(priority));
    }
}

void watch(Trial& trial, const char* logger, bool isTrace)
{
    const TrialOptions& options = trial.options();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::vector<std::string> texts = expectedTexts(Values{options.token});
    const Traced traced = traceProgram({program, logger, "--page", options.page, "--work", options.work,
                                        "--token", std::to_string(options.token)},
                                       texts);
    if (WIFSIGNALED(traced.status)) {
        std::signal(WTERMSIG(traced.status), SIG_DFL);
        raise(WTERMSIG(traced.status)); // it is told by whoever waits for this process
    }
    if (WEXITSTATUS(traced.status) != 0) {
        _exit(WEXITSTATUS(traced.status));
    }
    if (!traced.isTraced) {
        trial.note("the texts of the logs were not judged: this system lets no process be traced");
    } else if (options.isLogTextJudged) {
        judgeTexts(trial, traced, texts, isTrace);
        judgeThreads(trial, traced, texts, isTrace);
        const char* const name = isTrace ? "TraceLogger::record" : "__norlog_print";
        judgeEdges(trial, traced, Values{options.token}, name);
        judgeLastRecords(trial, traced, name);
    }
}

void tryPlatformLog(Trial& trial)
{
    watch(trial, "platform-logger", false);
}

void tryTraceLog(Trial& trial)
{
    watch(trial, "trace-logger", true);
}

} // namespace

std::vector<TrialKind> logTrials()
{
    return {{"platform-log", tryPlatformLog},
            {"trace-log", tryTraceLog},
            {"platform-logger", logPlatform},
            {"trace-logger", logTrace}};
}

} // namespace platformcheck
