// norlog.h and trace_logger.h. What is logged is seen by what a process of its own hands to the system,
// because a set keeps its log where it likes.

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "common/process/guarded-buffer.h"
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
constexpr const char* kFunction = "logs"; // not __func__, which a lambda has of its own

constexpr int kSystemBuffer = 2;
constexpr int kDebug = 3;
constexpr int kError = 6;
constexpr std::size_t kLongText = 6000;
constexpr std::size_t kVeryLongText = 100'000; // more than a datagram takes

// The values of the records; their texts must not stand in the memory of who logs.
struct Values {
    unsigned int token;
    std::string longText = std::string(kLongText, 'L');

    int negative() const { return -static_cast<int>(token) - 7; }
    unsigned long long big() const { return 10'000'000'000'000ULL + token; }
};

// Which of the texts tells what.
enum Text : std::size_t {
    kPlain,
    kTail,
    kReason,
    kPercent,
    kMany,
    kFarTail,
    kSecondLine,
    kOnThread,
    kLiteral,
    kTexts,
    kFarHead = kTexts, // which is looked for, too, and judged with the other end
    kLookedFor
};

struct Expectation {
    FindingId otherwise;
    const char* what;
};
constexpr Expectation kExpected[kTexts] = {
    {FindingId::WrongText, "a record of one line, with numbers and a word"},
    {FindingId::RecordCut, "the end of a record of 6000 characters"},
    {FindingId::WrongErrno, "a record with \"%m\" and errno EXDEV"},
    {FindingId::WrongText, "a record with a value that has \"%s%n%d\" in it"},
    {FindingId::WrongText, "a record with twelve values of all kinds"},
    {FindingId::RecordCut, "the end of a record of 100000 characters"},
    {FindingId::RecordCut, "what stands behind the end of a line"},
    {FindingId::WrongErrno, "a record with \"%m\" and errno ENOTDIR, of another thread"},
    {FindingId::WrongText, "a record with \"%%m\", which is no \"%m\""},
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

// More values than registers take, and a width among them.
constexpr const char* kManyFormat = "%d %s %lu %.3f %c %x %zu 100%% %5d|%-4s|%.*s %lld %08.3f.";
#define MANY_VALUES(values)                                                                                  \
    (values).negative(), "two", 3UL + (values).token, 4.5, 'c', 0xbeefU, std::size_t{7}, 8, "n", 3, "tenth", \
        -11LL, 12.25

std::vector<std::string> expectedTexts(const Values& values)
{
    std::vector<std::string> texts(kLookedFor);
    texts[kPlain] = printed("n=%d u=%llu s=%s %5.2f|", values.negative(), values.big(), "word", 2.5);
    texts[kTail] = printed("LLLLLLLL,%u,%d,end", values.token, values.negative());
    texts[kReason] = printed("reason %s, %u", std::strerror(EXDEV), values.token);
    texts[kPercent] = printed("%u=%s.", values.token, "%s%n%d");
    texts[kMany] = printed(kManyFormat, MANY_VALUES(values));
    texts[kFarTail] = printed("MMMMMMMM,%d,%u,end", values.negative(), values.token);
    texts[kFarHead] = printed("%u far ahead:MMMMMMMM", values.token);
    texts[kSecondLine] = printed("second line of %u.", values.token);
    texts[kOnThread] = printed("on a thread %s, %u", std::strerror(ENOTDIR), values.token);
    texts[kLiteral] = printed("100%%m %u.", values.token);
    return texts;
}

constexpr int kRepeats = 3;                                   // of one text
constexpr int kTurns = 3;                                     // of one place, with other values each time
constexpr std::size_t kReasonLengths[] = {600, 5000, 70'000}; // of texts with "%m" at their end
constexpr std::size_t kPercentLengths[] = {300, 1100, 5000, 70'000}; // of values with "%%" at their end
constexpr const char* kLetters = "\xC3\xA4\xE2\x82\xAC";             // of more than one byte

// Where buffers end.
std::vector<std::size_t> edgeLengths()
{
    std::vector<std::size_t> lengths;
    for (std::size_t power = 64; power <= 32768; power *= 2) {
        for (std::size_t length = power - 2; length <= power + 1; ++length) {
            lengths.push_back(length);
        }
    }
    return lengths;
}

constexpr const char* kEdge = "an edge: "; // of the format, before each such text

// Both ends are its own.
std::string edgeHead(std::size_t length)
{
    return printed("begin %zu ", length);
}

std::string edgeTail(std::size_t length, unsigned int token)
{
    return printed(" %zu of %u.", length, token);
}

// With kEdge it has that length.
std::string edgeText(std::size_t length, unsigned int token)
{
    const std::string head = edgeHead(length);
    const std::string tail = edgeTail(length, token);
    return head + std::string(length - std::strlen(kEdge) - head.size() - tail.size(), 'E') + tail;
}

// ---- Who logs ----

int errnoHeld = EXDEV; // as a record meets it
int errnoAfter = 0;

// `after` is read when the record has been made.
void judgeRecord(Trial& trial, const char* name, int result, const int& after)
{
    trial.require(after == errnoHeld, FindingId::ErrnoChanged,
                  std::string(name) + ": from " + std::to_string(errnoHeld) + " to " + std::to_string(after));
    trial.require(result >= 0, FindingId::NotLogged, "the result is " + std::to_string(result));
}

// A macro, as the daemon's is: the compiler looks at format and values.
#define CHECKED_RECORD(trial, isTrace, priority, ...)                                                        \
    judgeRecord(                                                                                             \
        trial, isTrace ? "TraceLogger::record" : "__norlog_print",                                           \
        trial.call(isTrace ? "TraceLogger::record" : "__norlog_print",                                       \
                   [&] {                                                                                     \
                       int result = 0;                                                                       \
                       errno = errnoHeld;                                                                    \
                       if (isTrace) {                                                                        \
                           TraceLogger::record(priority, kLogTrials, kFunction, __LINE__, __VA_ARGS__);      \
                       } else {                                                                              \
                           result = __norlog_print(kSystemBuffer, priority, "FWUPDATE", __VA_ARGS__);        \
                       }                                                                                     \
                       errnoAfter = errno;                                                                   \
                       return result;                                                                        \
                   }),                                                                                       \
        errnoAfter)

// Threads at a time, each with records of its own: as many as there is time for.
constexpr int kThreads = 4;
constexpr int kMostOfThread = 330;

std::string threadText(int thread)
{
    return std::string(200, static_cast<char>('a' + thread));
}

// So many have been made, for who judges them.
std::filesystem::path countFile(const Trial& trial, bool isTrace)
{
    return trial.options().work / (isTrace ? "trace-records" : "platform-records");
}

int logOnThread(Trial& trial, bool isTrace, int thread)
{
    const std::string text = threadText(thread);
    const unsigned int token = trial.options().token;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(1500ms).count();
    int number = 0;
    for (; number < kMostOfThread && common::realNow() < end; ++number) {
        trial.call(isTrace ? "TraceLogger::record" : "__norlog_print", [&] {
            if (isTrace) {
                TraceLogger::record(kError, kLogTrials, kFunction, __LINE__,
                                    "thread %d, %u, record %04d %s end", thread, token, number, text.c_str());
                return 0;
            }
            return __norlog_print(kSystemBuffer, kError, "FWUPDATE", "thread %d, %u, record %04d %s end",
                                  thread, token, number, text.c_str());
        });
    }
    return number;
}

void logOnThreads(Trial& trial, bool isTrace)
{
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    std::array<int, kThreads> counts{};
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&trial, &counts, isTrace, thread] {
            counts[static_cast<std::size_t>(thread)] = logOnThread(trial, isTrace, thread);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::ofstream out(countFile(trial, isTrace));
    for (const int count : counts) {
        out << count << '\n';
    }
}

// All texts that are handed over are gone, or others, when the call has returned.
void logPassingTexts(Trial& trial, bool isTrace)
{
    // By pointers, as the compiler wants a format that it can read.
    int (*const log)(int, int, const char*, const char*, ...) = __norlog_print;
    void (*const trace)(int, const char*, const char*, int, const char*, ...) = TraceLogger::record;
    for (int time = 0; time < 3; ++time) {
        common::GuardedBuffer tag("the tag", std::string("FWUPDATE"));
        common::GuardedBuffer format("the format", std::string("passing %s, %u."));
        common::GuardedBuffer value("a value", std::string("word"));
        common::GuardedBuffer file("the file's name", std::string("passing.cpp"));
        const unsigned int token = trial.options().token;
        trial.call(isTrace ? "TraceLogger::record" : "__norlog_print", [&] {
            if (isTrace) {
                trace(kError, file.as<char>(), tag.as<char>(), 1, format.as<char>(), value.as<char>(), token);
                return 0;
            }
            return log(kSystemBuffer, kError, tag.as<char>(), format.as<char>(), value.as<char>(), token);
        });
    }
}

// Such texts in each priority: what is right for errors may be wrong for what is logged more often. None has
// one of the others in it.
void logTexts(Trial& trial, bool isTrace, int priority)
{
    const Values values{trial.options().token};
    CHECKED_RECORD(trial, isTrace, priority, "p%d N=%d U=%llu S=%s %5.2f|", priority, values.negative(),
                   values.big(), "word", 2.5);
    CHECKED_RECORD(trial, isTrace, priority, "%s;%u;%d;end p%d.", values.longText.c_str(), values.token,
                   values.negative(), priority);
    CHECKED_RECORD(trial, isTrace, priority, "p%d why %m, %u.", priority, values.token);
    CHECKED_RECORD(trial, isTrace, priority, "p%d %u:%s.", priority, values.token, "%s%n%d");
}

// What is kept in memory only may be kept for some records and no longer: it is looked for now. Others of
// that length come between, as what was let go of would be taken for it.
void lookForText(Trial& trial, bool isTrace, Text text, std::size_t length = 20)
{
    for (int other = 0; other < 4; ++other) {
        const std::string filler(other % 2 == 0 ? length : 20, 'F');
        CHECKED_RECORD(trial, isTrace, kError, "between %d, %s.", other, filler.c_str());
    }
    askForLook(text);
}

// Which a platform may have to format by itself.
#define TEN_TIMES(text) text text text text text text text text text text
void logFormats(Trial& trial, bool isTrace)
{
    const unsigned int token = trial.options().token;
    int ofAByte = 300; // of both the lowest bits are told
    int ofAShort = 70000;
    CHECKED_RECORD(trial, isTrace, kError, "%+d|% d|%#o|%e|%g|%.1Lf|%hhd|%hd|%jd|%td|%-4d|%*s|%%, %u.", 5, 6,
                   8U, 1.5, 0.25, 2.5L, ofAByte, ofAShort, std::intmax_t{-9'000'000'000}, std::ptrdiff_t{4},
                   7, 3, "w", token);
    CHECKED_RECORD(trial, isTrace, kError, "%d;" TEN_TIMES(TEN_TIMES(TEN_TIMES("fgh"))) ";%u, a long format.",
                   1, token);
    CHECKED_RECORD(trial, isTrace, kError, "twice %m|%m, %u.", token);
    CHECKED_RECORD(trial, isTrace, kError, "an odd byte %s, then %u.", "\xE4", token);
    for (const int held : {0, ENOENT, 4095}) {
        errnoHeld = held;
        CHECKED_RECORD(trial, isTrace, kError, "errno %d is %m, %u.", held, token);
    }
    errnoHeld = EXDEV;
}

// It waits for the end of the process, as a thread of the daemon may wait for work.
void logOnThreadThatStays(Trial& trial, bool isTrace)
{
    static std::atomic<bool> isLogged;
    std::thread([&trial, isTrace] {
        trial.call(isTrace ? "TraceLogger::record" : "__norlog_print", [&] {
            if (isTrace) {
                TraceLogger::record(kError, kLogTrials, kFunction, __LINE__, "a thread that stays, %u.",
                                    trial.options().token);
                return 0;
            }
            return __norlog_print(kSystemBuffer, kError, "FWUPDATE", "a thread that stays, %u.",
                                  trial.options().token);
        });
        isLogged = true;
        while (true) {
            pause();
        }
    }).detach();
    trial.iterate(2s, [] { return isLogged.load(); });
}

struct WorkSoFar {
    std::uint64_t written = 0; // by files and pipes
    std::chrono::nanoseconds processor{0};
};

WorkSoFar workSoFar()
{
    WorkSoFar work;
    std::string name;
    std::ifstream in("/proc/self/io");
    while (in >> name && name != "wchar:") {
    }
    in >> work.written;
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    work.processor = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    return work;
}

// A moment, which on a busy machine begins when the platform's own threads have come to their end.
void waitAMoment(Trial& trial)
{
    constexpr std::chrono::nanoseconds kIdle = 100ms; // what waiting itself may take
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(6s).count();
    bool isBusy = true;
    for (WorkSoFar before = workSoFar(); isBusy && common::realNow() < end;) {
        trial.iterate(500ms);
        const WorkSoFar now = workSoFar();
        isBusy = now.written != before.written || now.processor - before.processor > kIdle;
        before = now;
    }
}

// Each is looked for before the next one comes.
void logAndLook(Trial& trial, bool isTrace, const Values& values)
{
    CHECKED_RECORD(trial, isTrace, kError, "reason %m, %u", values.token); // the very first: it opens the log
    lookForText(trial, isTrace, kReason);
    CHECKED_RECORD(trial, isTrace, kError, "n=%d u=%llu s=%s %5.2f|", values.negative(), values.big(), "word",
                   2.5);
    lookForText(trial, isTrace, kPlain);
    CHECKED_RECORD(trial, isTrace, kError, "%s,%u,%d,end", values.longText.c_str(), values.token,
                   values.negative());
    lookForText(trial, isTrace, kTail, kLongText);
    CHECKED_RECORD(trial, isTrace, kError, "%u=%s.", values.token, "%s%n%d");
    lookForText(trial, isTrace, kPercent);
    CHECKED_RECORD(trial, isTrace, kError, kManyFormat, MANY_VALUES(values));
    lookForText(trial, isTrace, kMany);
    CHECKED_RECORD(trial, isTrace, kError, "%u far ahead:%s,%d,%u,end", values.token,
                   std::string(kVeryLongText, 'M').c_str(), values.negative(), values.token);
    lookForText(trial, isTrace, kFarTail, kVeryLongText);
    askForLook(kFarHead);
    CHECKED_RECORD(trial, isTrace, kError, "100%%m %u.", values.token);
    lookForText(trial, isTrace, kLiteral);
    CHECKED_RECORD(trial, isTrace, kError, "a line\nsecond line of %u.", values.token);
    lookForText(trial, isTrace, kSecondLine);
    std::thread([&] {
        errnoHeld = ENOTDIR;
        CHECKED_RECORD(trial, isTrace, kError, "on a thread %m, %u", values.token);
        errnoHeld = EXDEV;
        lookForText(trial, isTrace, kOnThread); // what is kept may be the thread's, and end with it
    }).join();
}

// The end is the daemon's: a moment later, by quick_exit.
void logAll(Trial& trial, bool isTrace)
{
    const Values values{trial.options().token};
    logAndLook(trial, isTrace, values);
    for (int priority = kDebug; priority <= kError; ++priority) {
        CHECKED_RECORD(trial, isTrace, priority, "early, priority %d, %u.", priority, values.token);
    }
    for (int priority = kDebug; priority <= kError; ++priority) {
        logTexts(trial, isTrace, priority);
    }
    logFormats(trial, isTrace);
    CHECKED_RECORD(trial, isTrace, kError, "%s", "");
    for (int time = 0; time < kRepeats; ++time) {
        CHECKED_RECORD(trial, isTrace, kError, "the same, %u.", values.token);
    }
    for (int turn = 1; turn <= kTurns; ++turn) {
        CHECKED_RECORD(trial, isTrace, kError, "turn %d of %u.", turn, values.token);
    }
    for (const std::size_t length : kReasonLengths) {
        CHECKED_RECORD(trial, isTrace, kError, "%s;why %m, %zu of %u.", std::string(length, 'W').c_str(),
                       length, values.token);
    }
    for (const std::size_t length : kPercentLengths) {
        CHECKED_RECORD(trial, isTrace, kError, "%s;%zu percent of %u.",
                       (std::string(length, 'P') + ";100%%").c_str(), length, values.token);
    }
    CHECKED_RECORD(trial, isTrace, kError, "letters %s, %u.", kLetters, values.token);
    CHECKED_RECORD(trial, isTrace, kError, "a record of the gravest priority, which may take others with it");
    for (const std::size_t length : edgeLengths()) {
        CHECKED_RECORD(trial, isTrace, kError, "an edge: %s", edgeText(length, values.token).c_str());
    }
    logPassingTexts(trial, isTrace);
    logOnThreadThatStays(trial, isTrace);
    trial.iterate(isTrace ? 0ms : 1100ms); // who drops what comes too fast counts anew
    for (int priority = kError; priority >= kDebug; --priority) {
        CHECKED_RECORD(trial, isTrace, priority, "late, priority %d, %u.", priority, values.token);
    }
    waitAMoment(trial);
    std::quick_exit(0);
}

// One record by itself, then those of the threads.
void logBeside(Trial& trial, bool isTrace)
{
    const Values values{trial.options().token};
    CHECKED_RECORD(trial, isTrace, kError, "by itself, %u, %s end", values.token,
                   threadText(kThreads).c_str());
    logOnThreads(trial, isTrace);
    waitAMoment(trial);
    std::quick_exit(0);
}

// ---- Who watches ----

// A text may leave in pieces, with something between them, where long ones do. The greater part of it is
// somewhere then, and the rest not far from there.
bool isInPieces(const std::string& written, const std::string& text)
{
    constexpr std::size_t kNear = 300;
    for (std::size_t cut = 1; cut < text.size(); ++cut) {
        const bool isHeadGreater = cut >= text.size() / 2;
        const std::string head = text.substr(0, cut);
        const std::string rest = text.substr(cut);
        const std::size_t at = written.find(isHeadGreater ? head : rest);
        if (at == std::string::npos) {
            continue;
        }
        const std::size_t begin = isHeadGreater ? at + head.size() : at - std::min(at, kNear);
        const std::size_t size = isHeadGreater ? kNear : at - begin;
        if (written.substr(begin, size).find(isHeadGreater ? rest : head) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// Whether a text is in what was written. Those of long records may leave in pieces, and others where the long
// ones do.
enum class Length { kShort, kLong };
bool isWrittenText(const Traced& traced, const Values& values, const std::string& text, Length length)
{
    if (traced.written.find(text) != std::string::npos) {
        return true;
    }
    const bool mayBeInPieces =
        length == Length::kLong || traced.written.find(values.longText) == std::string::npos;
    return mayBeInPieces && isInPieces(traced.written, text);
}

Length lengthOf(std::size_t text)
{
    return text == kTail || text == kFarTail || text == kFarHead ? Length::kLong : Length::kShort;
}

void judgeTexts(Trial& trial, const Traced& traced, const std::vector<std::string>& texts, bool isTrace)
{
    const Values values{trial.options().token};
    const auto hasLeft = [&](std::size_t index) {
        return isWrittenText(traced, values, texts[index], lengthOf(index)) || traced.isShared[index];
    };
    const auto isSeen = [&](std::size_t index) {
        return hasLeft(index) || (isTrace && traced.isPrivate[index]);
    };
    bool isAnySeen = false;
    bool isAnyKept = false;
    bool hasAnyLeft = false;
    for (std::size_t index = 0; index < kTexts; ++index) {
        isAnySeen = isAnySeen || isSeen(index);
        hasAnyLeft = hasAnyLeft || hasLeft(index);
        isAnyKept = isAnyKept || traced.isPrivate[index];
    }
    if (!isAnySeen) {
        trial.found(isAnyKept ? FindingId::LostAtTheEnd : FindingId::RecordLost,
                    isTrace ? "TraceLogger::record" : "__norlog_print");
        return;
    }
    for (std::size_t index = 0; index < kTexts; ++index) {
        // What is kept in memory has a bound, which such a record may be beyond.
        const bool isBeyond = index == kFarTail && !hasAnyLeft && !isSeen(kFarHead);
        if (!isSeen(index) && !isBeyond) {
            trial.found(kExpected[index].otherwise,
                        std::string(isTrace ? "TraceLogger::record" : "__norlog_print") + ": " +
                            kExpected[index].what + " is not as \"" + texts[index] +
                            "\" in what was written");
        }
    }
}

// Where a record begins, its number follows, and the text of its thread: those that are whole.
std::set<std::string> wholeRecords(const Traced& traced, unsigned int token)
{
    std::set<std::string> whole;
    const std::string& written = traced.written;
    constexpr const char* kBegin = "thread ";
    for (std::size_t at = written.find(kBegin); at != std::string::npos; at = written.find(kBegin, at + 1)) {
        const int thread = written[at + std::strlen(kBegin)] - '0';
        const std::string head = printed("thread %d, %u, record ", thread, token);
        if (thread < 0 || thread >= kThreads || written.compare(at, head.size(), head) != 0) {
            continue;
        }
        const std::string number = written.substr(at + head.size(), 4);
        const std::string rest = " " + threadText(thread) + " end";
        if (written.compare(at + head.size() + 4, rest.size(), rest) == 0) {
            whole.insert(std::to_string(thread) + "/" + number);
        }
    }
    return whole;
}

// As many as each thread has logged up to its last one that is whole.
std::size_t recordsUpToTheLast(const std::set<std::string>& whole)
{
    std::map<std::string, std::size_t> last; // of each thread
    for (const std::string& record : whole) {
        const std::size_t slash = record.find('/');
        std::size_t& number = last[record.substr(0, slash)];
        number = std::max<std::size_t>(number, std::strtoul(record.c_str() + slash + 1, nullptr, 10) + 1);
    }
    return std::accumulate(last.begin(), last.end(), std::size_t{0},
                           [](std::size_t sum, const auto& one) { return sum + one.second; });
}

// Only where records leave the process: memory keeps the latest only.
void judgeThreads(Trial& trial, const Traced& traced, bool isTrace)
{
    const std::string alone =
        printed("by itself, %u, %s end", trial.options().token, threadText(kThreads).c_str());
    if (traced.written.find(alone) == std::string::npos || traced.isCut) {
        return;
    }
    std::size_t logged = 0;
    std::ifstream in(countFile(trial, isTrace));
    for (std::size_t count = 0; in >> count;) {
        logged += count;
    }
    const std::set<std::string> whole = wholeRecords(traced, trial.options().token);
    logged = isTrace ? recordsUpToTheLast(whole) : logged; // the latest may be in memory
    trial.require(whole.size() >= logged, FindingId::RecordsMixed,
                  std::string(isTrace ? "TraceLogger::record" : "__norlog_print") + ": of " +
                      std::to_string(logged) + " records of " + std::to_string(kThreads) + " threads only " +
                      std::to_string(whole.size()) + " are whole in what was written");
}

struct OfPriority {
    FindingId otherwise;
    const char* what;
    std::string text;
};

// Of a priority that is written at all.
void judgePriorities(Trial& trial, const Traced& traced, const Values& values, const char* logger)
{
    const auto isWritten = [&](const std::string& text, Length length = Length::kShort) {
        return isWrittenText(traced, values, text, length);
    };
    const std::string reason = std::strerror(EXDEV);
    for (int priority = kDebug; priority <= kError; ++priority) {
        if (!isWritten(printed("early, priority %d, %u.", priority, values.token))) {
            continue;
        }
        const OfPriority texts[] = {
            {FindingId::WrongText, "numbers and a word",
             printed("p%d N=%d U=%llu S=%s %5.2f|", priority, values.negative(), values.big(), "word", 2.5)},
            {FindingId::RecordCut, "6000 characters",
             printed("LLLLLLLL;%u;%d;end p%d.", values.token, values.negative(), priority)},
            {FindingId::WrongErrno, "\"%m\"",
             printed("p%d why %s, %u.", priority, reason.c_str(), values.token)},
            {FindingId::WrongText, "a \"%\" in a value",
             printed("p%d %u:%s.", priority, values.token, "%s%n%d")}};
        for (const OfPriority& one : texts) {
            const bool isLong = one.otherwise == FindingId::RecordCut;
            trial.require(isWritten(one.text, isLong ? Length::kLong : Length::kShort), one.otherwise,
                          std::string(logger) + ": a record of priority " + std::to_string(priority) +
                              " with " + one.what + " does not end as \"" + one.text + "\"");
        }
    }
}

// Where such a text begins and ends, it has all its letters, whatever stands between them where it leaves in
// pieces.
bool isWholeEdge(const std::string& written, std::size_t at, std::size_t length, unsigned int token)
{
    const std::string window = written.substr(at, 2 * length + 4000);
    const std::string tail = edgeTail(length, token);
    const std::size_t next = window.find("begin ", 1);
    const std::string own = window.substr(0, next);
    const auto letters = static_cast<std::size_t>(std::count(own.begin(), own.end(), 'E'));
    return letters + std::strlen(kEdge) + edgeHead(length).size() + tail.size() >= length &&
           (own.find(tail) != std::string::npos || isInPieces(own, tail));
}

std::string inARow(const std::vector<std::size_t>& numbers)
{
    std::string row;
    for (const std::size_t number : numbers) {
        row += (row.empty() ? "" : ", ") + std::to_string(number);
    }
    return row;
}

// Only where records are written as they are.
void judgeEdges(Trial& trial, const Traced& traced, const Values& values, const char* logger)
{
    const std::string longEnd = expectedTexts(values)[kTail];
    if (!isWrittenText(traced, values, longEnd, Length::kLong)) {
        return;
    }
    std::vector<std::size_t> cut;
    std::vector<std::size_t> lost;
    std::size_t longest = 0; // of those that are whole
    for (const std::size_t length : edgeLengths()) {
        const std::size_t at = traced.written.find(edgeHead(length));
        const bool isWhole = at != std::string::npos && isWholeEdge(traced.written, at, length, values.token);
        longest = isWhole ? length : longest;
        if (!isWhole) {
            (at == std::string::npos ? lost : cut).push_back(length);
        }
    }
    const bool areLong = !lost.empty() && lost.front() > longest && longest > 0;
    trial.require(cut.empty(), FindingId::RecordCut,
                  std::string(logger) +
                      ": not whole in what was written: a text of so many characters: " + inARow(cut));
    trial.require(lost.empty(), areLong ? FindingId::RecordCut : FindingId::RecordLost,
                  std::string(logger) + ": not in what was written: a text of so many characters" +
                      (areLong ? "" : ", of some in quick succession") + ": " + inARow(lost));
}

int timesWritten(const Traced& traced, const std::string& text)
{
    int times = 0;
    for (std::size_t at = traced.written.find(text); at != std::string::npos;
         at = traced.written.find(text, at + 1)) {
        ++times;
    }
    return times;
}

// Whether all those records are there, by what their format says: what is nowhere of their texts has become
// something else.
bool areEdgesThere(const Traced& traced)
{
    return timesWritten(traced, kEdge) >= static_cast<int>(edgeLengths().size());
}

// Short records in quick succession, of which some are nowhere, while one after them is: most of what else is
// looked for is lost with them.
std::string lostInSuccession(const Traced& traced, unsigned int token)
{
    constexpr std::size_t kShortOnes = 600;
    std::vector<std::size_t> lost;
    for (const std::size_t length : edgeLengths()) {
        if (length < kShortOnes && traced.written.find(edgeHead(length)) == std::string::npos) {
            lost.push_back(length);
        }
    }
    const bool isLaterThere = timesWritten(traced, printed("late, priority %d, %u.", kError, token)) > 0;
    return isLaterThere ? inARow(lost) : "";
}

// Whoever keeps texts by the place that logs, or by the format, spoils most of the others with it.
bool isEarlierText(const Traced& traced, unsigned int token)
{
    return timesWritten(traced, printed("turn 1 of %u.", token)) > 1 &&
           timesWritten(traced, printed("turn %d of %u.", kTurns, token)) == 0;
}

// Where the end of such a text is written, so is the reason before it.
void judgeLongReasons(Trial& trial, const Traced& traced, const Values& values, const char* logger)
{
    for (const std::size_t length : kReasonLengths) {
        const std::string end = printed(", %zu of %u.", length, values.token);
        const std::string whole = ";why " + std::string(std::strerror(EXDEV)) + end;
        trial.require(timesWritten(traced, end) == 0 || isWrittenText(traced, values, whole, Length::kLong),
                      FindingId::WrongErrno,
                      std::string(logger) + ": a record of " + std::to_string(length) +
                          " characters with \"%m\" at its end and errno EXDEV does not end as \"" + whole +
                          "\"");
    }
}

// Where the end of such a text is written, so is the value before it, which is no format.
void judgeLongPercents(Trial& trial, const Traced& traced, const Values& values, const char* logger)
{
    for (const std::size_t length : kPercentLengths) {
        const std::string end = printed(";%zu percent of %u.", length, values.token);
        trial.require(timesWritten(traced, end) == 0 ||
                          isWrittenText(traced, values, ";100%%" + end, Length::kLong),
                      FindingId::WrongText,
                      std::string(logger) + ": a record with a value of " + std::to_string(length) +
                          " characters and \"%%\" at its end does not end as \";100%%" + end + "\"");
    }
}

// Where a text is written at all, it is as often as it was logged; and letters are what they are, or are
// written in some other way, but are no question marks.
void judgeRepeats(Trial& trial, const Traced& traced, unsigned int token, const char* logger)
{
    const int times = timesWritten(traced, printed("the same, %u.", token));
    trial.require(times == 0 || times >= kRepeats, FindingId::RecordLost,
                  std::string(logger) + ": of " + std::to_string(kRepeats) + " records with one text " +
                      std::to_string(times) + " were written");
    for (const char* const lost : {"??", "?????"}) {
        trial.require(traced.written.find(printed("letters %s, %u.", lost, token)) == std::string::npos,
                      FindingId::WrongText, std::string(logger) + ": letters became question marks");
    }
}

struct Further {
    FindingId otherwise;
    const char* what;
    std::string text;
    Length length = Length::kShort;
};

// Where texts are written as they are.
void judgeFormats(Trial& trial, const Traced& traced, const Values& values, bool isTrace)
{
    const char* const logger = isTrace ? "TraceLogger::record" : "__norlog_print";
    if (timesWritten(traced, expectedTexts(values)[kPlain]) == 0) {
        return;
    }
    const unsigned int token = values.token;
    const char* const reason = std::strerror(EXDEV);
    std::vector<Further> all = {
        {FindingId::WrongText, "values of many types",
         printed("%+d|% d|%#o|%e|%g|%.1Lf|%hhd|%hd|%jd|%td|%-4d|%*s|%%, %u.", 5, 6, 8U, 1.5, 0.25, 2.5L, 300,
                 70000, std::intmax_t{-9'000'000'000}, std::ptrdiff_t{4}, 7, 3, "w", token)},
        {FindingId::RecordCut, "a format of 3000 characters", printed("fgh;%u, a long format.", token),
         Length::kLong},
        {FindingId::WrongErrno, "\"%m\" twice and errno EXDEV",
         printed("twice %s|%s, %u.", reason, reason, token)},
        {timesWritten(traced, "an odd byte ") == 0 ? FindingId::RecordLost : FindingId::WrongText,
         "a byte that is no UTF-8", printed(", then %u.", token)}};
    if (!isTrace) {
        all.push_back({FindingId::LostAtTheEnd, "the only record of a thread that goes on",
                       printed("a thread that stays, %u.", token)});
    }
    for (const int held : {0, ENOENT, 4095}) {
        all.push_back({FindingId::WrongErrno, "\"%m\"",
                       printed("errno %d is %s, %u.", held, std::strerror(held), token)});
    }
    for (const Further& one : all) {
        trial.require(isWrittenText(traced, values, one.text, one.length), one.otherwise,
                      std::string(logger) + ": a record with " + one.what + " is not as \"" + one.text +
                          "\" in what was written");
    }
}

// A recorder may keep its latest records in memory until there are some to be written: then nothing is said
// of what is not written yet.
bool isWrittenToTheEnd(const Traced& traced, unsigned int token)
{
    return timesWritten(traced, printed("late, priority %d, %u.", kError, token)) > 0;
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

// Its crash is this process's, for whoever waits for that.
Traced traceLogger(const Trial& trial, const char* logger, const std::vector<std::string>& texts)
{
    const TrialOptions& options = trial.options();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    Traced traced = traceProgram({program, logger, "--page", options.page, "--work", options.work, "--token",
                                  std::to_string(options.token)},
                                 texts);
    if (WIFSIGNALED(traced.status)) {
        std::signal(WTERMSIG(traced.status), SIG_DFL);
        raise(WTERMSIG(traced.status));
    }
    if (WEXITSTATUS(traced.status) != 0) {
        _exit(WEXITSTATUS(traced.status));
    }
    return traced;
}

void watch(Trial& trial, bool isTrace)
{
    const Values values{trial.options().token};
    const std::vector<std::string> texts = expectedTexts(values);
    const Traced alone = traceLogger(trial, isTrace ? "trace-logger" : "platform-logger", texts);
    const Traced beside = traceLogger(trial, isTrace ? "trace-loggers" : "platform-loggers", texts);
    if (!alone.isTraced) {
        trial.note("the texts of the logs were not judged: this system lets no process be traced");
    } else if (trial.options().isLogTextJudged) {
        const char* const name = isTrace ? "TraceLogger::record" : "__norlog_print";
        if (isEarlierText(alone, values.token)) {
            trial.found(FindingId::WrongText,
                        std::string(name) + ": records of one place, with other values each time, all have "
                                            "the text of the first");
            return;
        }
        if (const std::string lost = lostInSuccession(alone, values.token); !lost.empty()) {
            const bool areOthers = areEdgesThere(alone);
            trial.found(areOthers ? FindingId::WrongText : FindingId::RecordLost,
                        std::string(name) + ": of many records in quick succession, those of so many " +
                            (areOthers ? "characters have another text: " : "characters: ") + lost);
            return;
        }
        judgeTexts(trial, alone, texts, isTrace);
        judgeThreads(trial, beside, isTrace);
        if (isTrace && !isWrittenToTheEnd(alone, values.token)) {
            return;
        }
        judgeEdges(trial, alone, values, name);
        if (!isTrace) { // which alone has to be out of the process
            judgeLastRecords(trial, alone, name);
        }
        judgeRepeats(trial, alone, values.token, name);
        judgePriorities(trial, alone, values, name);
        judgeLongReasons(trial, alone, values, name);
        judgeLongPercents(trial, alone, values, name);
        judgeFormats(trial, alone, values, isTrace);
    }
}

} // namespace

std::vector<TrialKind> logTrials()
{
    return {{"platform-log", [](Trial& trial) { watch(trial, false); }},
            {"trace-log", [](Trial& trial) { watch(trial, true); }},
            {"platform-logger", [](Trial& trial) { logAll(trial, false); }},
            {"trace-logger", [](Trial& trial) { logAll(trial, true); }},
            {"platform-loggers", [](Trial& trial) { logBeside(trial, false); }},
            {"trace-loggers", [](Trial& trial) { logBeside(trial, true); }}};
}

} // namespace platformcheck
