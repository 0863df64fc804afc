// One set in use: cycle after cycle a boot, an update or none, a standby, and what must be so then.
#ifndef TESTS_PROOF_SOAK_SOAKED_SET_H
#define TESTS_PROOF_SOAK_SOAKED_SET_H

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"
#include "tests/proof/soak/console-client.h"
#include "tests/proof/soak/steadiness.h"

namespace proof
{

// A call of the platform that fails some times.
struct SoakFault {
    const char* call;
    int result;
    int count;
};

// What happens in a cycle, by chance.
struct SoakPlan {
    enum class Offer { kNothing, kStandby, kAccept } offer = Offer::kNothing;
    std::vector<std::string> modules; // beside the tuner's
    std::optional<SoakFault> fault;
    std::optional<unsigned int> killedAfter; // milliseconds of this machine
    bool hasTrouble() const { return fault || killedAfter; }
};

struct SoakFigures {
    std::size_t boots = 0; // of the set
    std::size_t updates = 0;
    std::size_t kills = 0;
    std::size_t faults = 0;
    std::uint64_t messages = 0; // that the console's page was told
};

class SoakedSet
{
public:
    enum class Way {
        kTelevision, // each cycle reboots the set; the daemon starts by itself
        kServices    // the set stays on, and the daemon is started anew: its services live through all cycles
    };

    // Makes the set and switches it on.
    SoakedSet(const std::filesystem::path& directory, Way way);

    // What was not as it must be.
    std::vector<std::string> live(const SoakPlan& plan);
    // What the cycle was, for who reads of a breach.
    static std::string textOf(const SoakPlan& plan);

    const SoakFigures& figures() const { return figures_; }
    // Of each service, in bytes.
    const std::map<std::string, Course>& memory() const { return memory_; }

private:
    void prepare(const SoakPlan& plan);
    void start();
    void play(const SoakPlan& plan);
    void playToRest(const SoakPlan& plan);
    void endRest();
    bool isAtRest();
    bool said(const std::string& text) const;
    void killAfter(unsigned int milliseconds);
    void openConsole();
    void closeConsole();

    void judge(const SoakPlan& plan);
    void judgeEnd(const SoakPlan& plan);
    void judgeLeftOver(const SoakPlan& plan);
    void judgeServices();
    void judgeFiles();
    void countMessages();
    void breach(const std::string& text) { breaches_.push_back(text); }

    tarnwick::Television tv_;
    Way way_;
    std::unique_ptr<ConsoleClient> console_;
    std::uint64_t messagesBefore_ = 0;
    SoakFigures figures_;
    std::map<std::string, Course> memory_;
    std::optional<std::map<std::string, ServiceState>> services_; // as after the first cycle
    std::set<std::string> files_;                                 // that have been there
    std::size_t cycles_ = 0;
    std::vector<std::string> breaches_;
};

} // namespace proof

#endif
