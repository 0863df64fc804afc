// The service as it is promised, in a page of states and a page of runs: what it would call, say, write and
// decide, event by event, on a clock that moves only when told to. It is written without a look at the daemon
// and shares no line with it, so that where both agree it is not because of the same mistake.
//
// One thread runs at a time, in the order in which they became ready, each until it waits; the main loop
// comes last. Three events change that: "eager" lets a new thread run before its maker goes on, "stall" lets
// no thread run but the main one, "lazy" is back to the rule. Times are milliseconds.
#ifndef TESTS_PROOF_MODEL_MODEL_H
#define TESTS_PROOF_MODEL_MODEL_H

#include <memory>
#include <string>
#include <vector>

#include "tests/proof/process/television.h"

namespace proof
{

class Model
{
public:
    explicit Model(const Television& television);
    ~Model();

    void boot();
    // "tick", "power:0>2", "key:1", ...: events.cpp lists them. After the end nothing happens any more.
    void apply(const std::string& event);
    // What was called and said since the last time.
    std::vector<std::string> takeTrace();
    // State, keys and what is held at this moment, or at the end.
    std::string status() const;
    bool hasEnded() const;

private:
    class Service;
    std::unique_ptr<Service> service;
};

} // namespace proof

#endif
