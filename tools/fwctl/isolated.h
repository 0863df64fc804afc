// Work that runs control libraries in a child process, so that one that crashes, hangs, throws or ends the
// process costs its own answer and nothing else.
//
// To be used while fwctl has a single thread and no connection to the bus: the child is a plain fork.
#ifndef TOOLS_FWCTL_ISOLATED_H
#define TOOLS_FWCTL_ISOLATED_H

#include <chrono>
#include <functional>
#include <json/json.h>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fwctl
{

constexpr std::chrono::seconds kCallLimit{10}; // for every call of a library but those that write hardware

// The child's end: what it has found out so far reaches the parent even when it crashes later.
class Telling
{
public:
    struct Shared;
    // `survives`: goes on when the parent has ended.
    Telling(int pipe, Shared& shared, bool survives) : pipe_(pipe), shared_(shared), survives_(survives) {}

    // Every thread may.
    void put(const char* name, const Json::Value& value);

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

    private:
        void* slot_;
    };

    template <typename Function>
    auto call(const std::string& entryPoint, Function function)
    {
        const Call call(*this, entryPoint);
        return function();
    }

private:
    int pipe_;
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
    enum class Orphaned { kEnds, kGoesOn }; // when the parent has ended

    // The child runs `work` and ends. Throws Failure when there can be none.
    Child(const Work& work, Orphaned orphaned);
    ~Child(); // ends it
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t process() const { return process_; }

    // Hands what the child tells to `onPart`, each part an object with one member, until the child has ended;
    // calls `onPause` ten times a second. Gives what went wrong with it ("" for a child that did its work): a
    // crash, a call that hung, an exception, an end before its work was done.
    std::string wait(const PartHandler& onPart, const std::function<void()>& onPause);

    // The module in whose call the child ended; empty when it was none, or none was named.
    const std::string& culprit() const { return culprit_; }
    bool hasHung() const { return hasHung_; }

private:
    bool hasEnded() const;
    bool collect(const PartHandler& onPart, const std::function<void()>& onPause);
    void take(const char* bytes, std::size_t count, const PartHandler& onPart);
    std::string failureOf(int status);

    Telling::Shared* shared_;
    pid_t process_ = -1;
    int pipe_ = -1;
    std::string rest_; // of a line that has not come whole
    std::string exception_;
    std::string culprit_;
    bool isDone_ = false;
    bool hasHung_ = false;
};

// The parts that the child has told, as one object. A child that failed adds "failure": a text that names the
// call.
Json::Value runIsolated(const Work& work);

// The same for many pieces of work, `work(0)` to `work(count - 1)`, which share children as long as none
// fails: a fork for each costs more than most of them.
std::vector<Json::Value> runIsolatedAll(std::size_t count,
                                        const std::function<void(std::size_t, Telling&)>& work);

} // namespace fwctl

#endif
