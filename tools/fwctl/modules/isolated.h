// Work that runs control libraries in a child process, so that one that crashes, hangs, throws or ends the
// process costs its own answer and nothing else; so does one that prints, sends signals or starts others
// (common/process/contained-process.h).
//
// To be used while fwctl has a single thread and no connection to the bus: the child is a plain fork.
#ifndef TOOLS_FWCTL_MODULES_ISOLATED_H
#define TOOLS_FWCTL_MODULES_ISOLATED_H

#include <chrono>
#include <cxxabi.h>
#include <functional>
#include <json/json.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/files/unique-fd.h"
#include "common/process/contained-process.h"
#include "tools/fwctl/modules/library-speech.h"
#include "tools/fwctl/output.h"

namespace fwctl
{

constexpr std::chrono::seconds kCallLimit{10}; // for every call of a library but those that write hardware

// The child's end: what it has found out so far reaches the parent even when it crashes later.
class Telling
{
public:
    struct Shared;
    // `survives`: goes on when the parent has ended.
    Telling(int pipe, Shared& shared, bool survives);

    // Begins each line that is told: a library that writes into any descriptor there is has not told it.
    static std::string wordOf(const Shared& shared);

    // Every thread may. It reaches the parent whatever becomes of the child: of one that survives at once, of
    // others with sendPut(), or when the child has ended.
    void put(const char* name, const Json::Value& value);
    void sendPut();

    // Which of many pieces of work this is, and how far in percent: what the parent shows while it waits.
    // Less than before is passed over.
    void beginPiece(std::size_t index);
    void reach(unsigned percent);

    // A call into a library, for as long as it lives: the parent's report names it, and ends the child when
    // it takes longer than kCallLimit, unless it `writes` hardware. Every thread may.
    class Call
    {
    public:
        // `module` may be empty where the parent knows it.
        Call(Telling& telling, const std::string& entryPoint, const std::string& module = "",
             bool writes = false);
        ~Call();
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;

        // A library that ends the thread which does the work has not returned: the parent names it.
        void staysIfNobodyGoesOn();

    private:
        void* slot_;
    };

    template <typename Function>
    auto call(const std::string& entryPoint, const std::string& module, Function function,
              bool writes = false)
    {
        Call call(*this, entryPoint, module, writes);
        try {
            return function();
        } catch (const abi::__forced_unwind&) {
            call.staysIfNobodyGoesOn();
            throw; // must not be kept from going on
        }
    }

private:
    // What is printed from now on is this module's.
    void nameSpeaker(const std::string& module);
    void send(const char* bytes, std::size_t size);
    void sendKept();
    void endIfCutOff() const;

    int pipe_;
    int output_; // where a library prints, whatever it does to its standard descriptors
    std::string speaker_;
    Shared& shared_;
    bool survives_;
    std::mutex mutex_;
};

using Work = std::function<void(Telling&)>;
using PartHandler = std::function<void(const Json::Value& part)>;

// A child process, and the parent's end.
class Child
{
public:
    using Orphaned = common::ContainedProcess::Orphaned;

    // The child runs `work` and ends. What is printed in it goes to `onLine`. Throws Failure when there can
    // be none.
    Child(const Work& work, Orphaned orphaned, LibrarySpeech::Listener onLine);
    ~Child(); // ends it
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t process() const { return process_->process(); }
    std::size_t reached() const; // hundredths of its pieces of work

    // Hands what the child tells to `onPart`, each part an object with one member, until the child has ended;
    // calls `onPause` ten times a second. Gives what went wrong with it ("" for a child that did its work): a
    // crash, a call that hung, an exception, an end before its work was done.
    std::string wait(const PartHandler& onPart, const std::function<void()>& onPause);

    // The module in whose call the child ended; empty when it was none, or none was named.
    const std::string& culprit() const { return culprit_; }
    bool hasHung() const { return hasHung_; }
    bool isUnwatched() const { return isUnwatched_; } // the watcher was killed
    // Processes that went on after it, and were ended.
    unsigned leftBehind() const { return leftBehind_; }

private:
    static std::string readSome(int pipe);
    bool passOn(const PartHandler& onPart, int waitMs);
    bool collect(const PartHandler& onPart, const std::function<void()>& onPause);
    void take(const std::string& bytes, const PartHandler& onPart);
    void takeKept(const PartHandler& onPart);
    std::string failureOf(const common::ContainedProcess::End& end);

    Telling::Shared* shared_;
    LibrarySpeech speech_;
    std::unique_ptr<common::ContainedProcess> process_;
    common::UniqueFd pipe_;
    std::string rest_; // of a line that has not come whole
    std::string exception_;
    std::string culprit_;
    bool isLasting_; // goes on without its parent
    bool isDone_ = false;
    bool isUnwatched_ = false;
    bool hasHung_ = false;
    unsigned leftBehind_ = 0;
};

// The parts that the child has told, as one object. A child that failed adds "failure": a text that names the
// call; one that left processes behind adds "left_behind", their number: they were ended. What is printed is
// shown on standard error.
constexpr const char* kLeftBehind = "left_behind";
std::string leftBehindText(unsigned count); // for a person, behind the module's name
Json::Value runIsolated(const Work& work, const LibrarySpeech::Listener& onLine = complain);

// The same for many pieces of work, `work(0)` to `work(count - 1)`, which share children as long as none
// fails: a fork for each costs more than most of them.
std::vector<Json::Value> runIsolatedAll(std::size_t count,
                                        const std::function<void(std::size_t, Telling&)>& work,
                                        const LibrarySpeech::Listener& onLine = complain);

} // namespace fwctl

#endif
