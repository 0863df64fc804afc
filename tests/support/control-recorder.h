// What a control library of the tests was asked, and what it answers: the test and the library share it.
//
// Every library has one of its own, for as long as it stays loaded. The answers are to be set before the
// calls; `calls` and the other records may be read while a worker is in the library.
#ifndef TESTS_SUPPORT_CONTROL_RECORDER_H
#define TESTS_SUPPORT_CONTROL_RECORDER_H

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct ControlAnswers {
    std::string empId = "empTuner"; // up to 128 bytes are written, with a terminator only below 128
    std::string activeVersion = "1.0";
    std::optional<int> verdict = 1;     // none: checkVersion leaves the caller's number alone
    int expectedTime = 10;              // seconds
    unsigned int progress = 42;         // percent
    std::map<std::string, int> results; // by function; 0 for those that are not named
    int error = 0;                      // `errno` after doUpdate and doUpdate_decryption
    // Runs in every call after it was recorded, on the caller's thread and with nothing locked: to look
    // around, to wait, or to throw.
    std::function<void(const std::string& function)> onCall;
};

class ControlRecorder
{
public:
    ControlAnswers answers;

    // Every call in order, as it would be written: `setContext("tuner", 2, null)`, `doUpdate("/a.bin", 7)`,
    // `getEMPID()`.
    std::vector<std::string> calls() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }
    void clearCalls() // what the load has asked, for example
    {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.clear();
        payloads.clear();
    }
    // What doUpdate_decryption was given, one text per call.
    std::vector<std::string> decryptedPayloads() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return payloads;
    }

    // For the library alone.
    int called(const std::string& function, const std::string& arguments)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            recorded.push_back(function + "(" + arguments + ")");
        }
        if (answers.onCall) {
            answers.onCall(function);
        }
        const auto result = answers.results.find(function);
        return result != answers.results.end() ? result->second : 0;
    }
    void keepPayload(std::string payload)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        payloads.push_back(std::move(payload));
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> recorded;
    std::vector<std::string> payloads;
};

// Exported by every library of the tests beside its entry points.
using ControlRecorderFunction = ControlRecorder*();
constexpr const char* kControlRecorderSymbol = "controlRecorder";

#endif
