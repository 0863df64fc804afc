// norlog.h, trace_logger.h
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

#include "norlog.h"
#include "tests/platform/proof.h"
#include "trace_logger.h"

namespace proof
{

namespace
{

constexpr int kSystem = 2;
constexpr int kError = 6;

std::string log()
{
    std::ostringstream text;
    text << std::ifstream("/var/log/platform.log").rdbuf();
    return text.str();
}

// So many times is it in the log.
int count(const std::string& text)
{
    const std::string all = log();
    int times = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
        ++times;
    }
    return times;
}

// No other process of the set has written it.
std::string mark(const char* what)
{
    return std::string(what) + "-" + std::to_string(getpid());
}

std::string errnoKept()
{
    errno = ENOSPC;
    __norlog_print(kSystem, kError, "PROOF", "%d", 1);
    return errno == ENOSPC ? "" : "errno is another one";
}

std::string callersErrno()
{
    errno = ENOSPC;
    const std::string name = mark("error");
    __norlog_print(kSystem, kError, "PROOF", "%s: %m", name.c_str());
    return count(name + ": No space left on device") == 1 ? "" : "another error is written";
}

std::string callersErrnoInALongText()
{
    errno = ENOSPC;
    const std::string name = mark("long error");
    __norlog_print(kSystem, kError, "PROOF", "%s%s: %m", std::string(3000, 'x').c_str(), name.c_str());
    return count(name + ": No space left on device") == 1 ? "" : "another error is written";
}

std::string otherValuesOfOnePlace()
{
    const std::string name = mark("turn");
    for (int turn = 1; turn <= 2; ++turn) {
        __norlog_print(kSystem, kError, "PROOF", "%s number %d.", name.c_str(), turn);
    }
    return count(name + " number 1.") == 1 && count(name + " number 2.") == 1 ? "" : "the first text twice";
}

std::string longText()
{
    const std::string name = mark("end");
    __norlog_print(kSystem, kError, "PROOF", "%s %s", std::string(5000, 'x').c_str(), name.c_str());
    return count(name) == 1 ? "" : "its end is missing";
}

std::string percentInValue()
{
    const std::string name = mark("99%%");
    __norlog_print(kSystem, kError, "PROOF", "%s", name.c_str());
    return count(name) == 1 ? "" : "written as something else";
}

std::string percentInALongValue()
{
    const std::string name = mark("percent");
    const std::string value = std::string(3000, 'p') + "%%" + name;
    __norlog_print(kSystem, kError, "PROOF", "%s", value.c_str());
    return count("%%" + name) == 1 ? "" : "written as something else";
}

// Each text names its thread, and so does each record. Both threads begin when both are there.
std::string twoThreads()
{
    constexpr int kLines = 60;
    const std::string name = mark("thread");
    std::atomic<int> there{0};
    const auto write = [&] {
        const std::string text = name + " " + std::to_string(gettid()) + ".";
        ++there;
        while (there < 2) {
            std::this_thread::yield();
        }
        for (int line = 0; line < kLines; ++line) {
            __norlog_print(kSystem, kError, "PROOF", "%s", text.c_str());
        }
    };
    std::thread other(write);
    write();
    other.join();
    std::istringstream lines(log());
    int own = 0;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(name + " ");
        if (at != std::string::npos) {
            const std::string thread =
                line.substr(at + name.size() + 1, line.find('.', at) - at - name.size() - 1);
            own += line.find("\t" + thread + "\t") < at ? 1 : 0;
        }
    }
    return own == 2 * kLines ? "" : "one's text in the place of the other's";
}

// Each record of thousands that four threads write.
std::string thousandsOfRecords()
{
    const std::string name = mark("crowd");
    constexpr int kThreads = 4;
    constexpr int kRecords = 1500;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            const std::string text(200, static_cast<char>('a' + thread));
            for (int record = 0; record < kRecords; ++record) {
                __norlog_print(kSystem, kError, "PROOF", "%s %d of %d %s", name.c_str(), record, thread,
                               text.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::istringstream lines(log());
    std::set<std::string> whole;
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(name);
        if (at != std::string::npos) {
            whole.insert(line.substr(at));
        }
    }
    int missing = 0;
    for (int thread = 0; thread < kThreads; ++thread) {
        for (int record = 0; record < kRecords; ++record) {
            missing += static_cast<int>(whole.count(name + " " + std::to_string(record) + " of " +
                                                    std::to_string(thread) + " " +
                                                    std::string(200, static_cast<char>('a' + thread))) == 0);
        }
    }
    return missing == 0 ? "" : std::to_string(missing) + " are missing";
}

std::string longestOfMany()
{
    using Clock = std::chrono::steady_clock;
    int late = 0;
    for (int record = 0; record < 500; ++record) {
        const Clock::time_point begin = Clock::now();
        __norlog_print(kSystem, kError, "PROOF", "%d", record);
        late += Clock::now() - begin > std::chrono::milliseconds(100) ? 1 : 0;
    }
    return late < 3 ? "" : std::to_string(late) + " of five hundred are late";
}

std::string tagOfItsTime()
{
    std::string tag = mark("tag");
    const std::string name = "\t" + tag + "\t";
    __norlog_print(kSystem, kError, tag.c_str(), "%d", 1);
    tag.assign(tag.size(), '#');
    usleep(100000);
    return count(name) == 1 ? "" : "it has another tag";
}

std::string sameTextThrice()
{
    const std::string name = mark("same");
    for (int time = 0; time < 3; ++time) {
        __norlog_print(kSystem, kError, "PROOF", "%s", name.c_str());
    }
    const int written = static_cast<int>(count(name));
    return written == 3 ? "" : std::to_string(written) + " of three are written";
}

std::string lettersOfManyBytes()
{
    const std::string name = mark("letters") + " \xC3\xA4\xE2\x82\xAC";
    __norlog_print(kSystem, kError, "PROOF", "%s", name.c_str());
    return count(name) == 1 ? "" : "they are gone";
}

std::string longMinorText()
{
    constexpr int kDebug = 3;
    const std::string name = mark("minor");
    __norlog_print(kSystem, kDebug, "PROOF", "%s %s", std::string(5000, 'x').c_str(), name.c_str());
    return count(name) == 1 ? "" : "its end is missing";
}

std::string textOfABlock()
{
    const std::string name = mark("whole");
    __norlog_print(kSystem, kError, "PROOF", "%s", (std::string(1024 - name.size(), 'x') + name).c_str());
    return count("x" + name) == 1 ? "" : "its end is missing";
}

std::string beforeQuickExit(const char* how)
{
    const std::string name = mark("last words");
    inAnotherProcess(how, name);
    return count(name) == 1 ? "" : "it is not in the log";
}

std::string reasonTwice()
{
    const std::string name = mark("twice");
    errno = EXDEV;
    __norlog_print(kSystem, kError, "PROOF", "%s %m|%m", name.c_str());
    const std::string reason = std::strerror(EXDEV);
    return count(name + " " + reason + "|" + reason) == 1 ? "" : "one reason is another";
}

std::string threadThatGoesOn()
{
    static const std::string name = mark("goes on");
    static std::atomic<bool> isLogged;
    std::thread([] {
        __norlog_print(kSystem, kError, "PROOF", "%s", name.c_str());
        isLogged = true;
        pause();
    }).detach();
    while (!isLogged) {
        usleep(1000);
    }
    usleep(500000);
    return count(name) == 1 ? "" : "it is not in the log";
}

std::string errnoKeptByRecorder()
{
    errno = ENOSPC;
    TRACE_RECORD(kError, "%d", 1);
    return errno == ENOSPC ? "" : "errno is another one";
}

std::string longTextInRecorder()
{
    TRACE_RECORD(kError, "%s", std::string(5000, 'x').c_str());
    return "";
}

void logAnError()
{
    __norlog_print(kSystem, kError, "PROOF", "an error like the last");
}

} // namespace

const std::vector<Proof>& logProofs()
{
    constexpr int kSegmentationFault = 128 + 11;
    static const std::vector<Proof> proofs = {
        {"log-errno-lost", errnoKept},
        {"log-percent-m-late", callersErrno},
        {"log-cut", longText},
        {"log-fixed-buffer", longText, kSegmentationFault},
        {"log-formatted-twice", percentInValue},
        {"log-long-formatted-twice", percentInALongValue},
        {"log-lines-mixed", twoThreads},
        {"log-kept-until-exit", [] { return beforeQuickExit("--log"); }},
        {"log-minor-kept", [] { return beforeQuickExit("--warn"); }},
        {"log-full-blocks-cut", textOfABlock},
        {"log-values-mixed", thousandsOfRecords},
        {"log-slow-now-and-then", longestOfMany},
        {"log-tag-kept", tagOfItsTime},
        {"log-errors-kept", [] { return growth("KiB", residentKilobytes, 800, logAnError); }},
        {"log-minor-cut", longMinorText},
        {"log-repeats-swallowed", sameTextThrice},
        {"log-letters-lost", lettersOfManyBytes},
        {"log-percent-m-first", callersErrno},
        {"log-long-percent-m", callersErrnoInALongText},
        {"log-text-of-format", otherValuesOfOnePlace},
        {"log-percent-m-once", reasonTwice},
        {"log-thread-buffered", threadThatGoesOn},
        {"trace-errno-lost", errnoKeptByRecorder},
        {"trace-long-crashes", longTextInRecorder, kSegmentationFault},
    };
    return proofs;
}

} // namespace proof
