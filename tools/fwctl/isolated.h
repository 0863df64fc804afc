// Work that runs control libraries in a child process, so that one that crashes or hangs costs its own answer
// and nothing else.
//
// To be used while fwctl has a single thread and no connection to the bus: the child is a plain fork.
#ifndef FWCTL_ISOLATED_H
#define FWCTL_ISOLATED_H

#include <chrono>
#include <functional>
#include <json/json.h>
#include <string>

// The child's end: what it has found out so far reaches the parent even when it crashes later.
class Telling
{
public:
    struct Shared;
    Telling(int pipe, Shared& shared) : pipe_(pipe), shared_(shared) {}

    void put(const char* name, const Json::Value& value);

    // Runs a call into the library, under the time limit and with a name for the parent's report.
    template <typename Function>
    auto call(const char* entryPoint, Function function)
    {
        enter(entryPoint);
        auto result = function();
        leave();
        return result;
    }

private:
    void enter(const char* entryPoint);
    void leave();

    int pipe_;
    Shared& shared_;
};

// The parts that the child has told, as one object. A child that crashed, or was ended because a single call
// took longer than `limit`, adds "failure": a text that names the call. An exception does the same.
Json::Value runIsolated(const std::function<void(Telling&)>& work,
                        std::chrono::seconds limit = std::chrono::seconds(10));

// One line, without a newline.
std::string toJson(const Json::Value& value);

#endif
