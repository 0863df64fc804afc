// norlog.h, trace_logger.h
#include <cerrno>
#include <fstream>
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

std::string twoThreads()
{
    const auto write = [](const std::string& name, int lines) {
        for (int line = 0; line < lines; ++line) {
            __norlog_print(kSystem, kError, "PROOF", "%s", name.c_str());
        }
    };
    std::thread other(write, mark("other"), 100);
    write(mark("one"), 60); // fewer: texts that change places are seen
    other.join();
    return count(mark("other")) == 100 && count(mark("one")) == 60 ? ""
                                                                   : "one's text in the place of the other's";
}

std::string beforeQuickExit()
{
    const std::string name = mark("last words");
    inAnotherProcess("--log", name);
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
        {"log-lines-mixed", twoThreads},
        {"log-kept-until-exit", beforeQuickExit},
        {"trace-errno-lost", errnoKeptByRecorder},
        {"trace-long-crashes", longTextInRecorder, kSegmentationFault},
    };
    return proofs;
}

} // namespace proof
