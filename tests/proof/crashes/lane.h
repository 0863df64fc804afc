// One virtual set, on which runs are made one after the other: the story, what hits it, the next boots, and
// what must be so then.
#ifndef TESTS_PROOF_CRASHES_LANE_H
#define TESTS_PROOF_CRASHES_LANE_H

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"
#include "tests/proof/crashes/call-guard.h"
#include "tests/proof/crashes/point.h"
#include "tests/proof/crashes/story.h"
#include "tests/proof/left-over.h"

namespace proof
{

struct CrashBreach {
    std::string promise;
    std::string text;
};

// For --list.
struct CrashPromise {
    const char* name;
    const char* text;
};
const std::vector<CrashPromise>& crashPromises();

struct CrashOutcome {
    bool isHit = false;       // the daemon came to the point
    bool isMadeAgain = false; // on a slower clock, because the set did not come to rest
    std::vector<CrashBreach> breaches;
    std::vector<CountedCall> calls; // of a run that nothing is to hit
};

class Lane
{
public:
    // Makes the set, which goes with the object. A process has one lane.
    explicit Lane(const std::filesystem::path& directory);

    // Without a point nothing is hit. `isExamined`: by fwctl doctor as well, which takes its time. With
    // `tell` each step is told as it is taken.
    CrashOutcome run(const CrashStory& story, const std::optional<Point>& point, bool isExamined,
                     const std::function<void(const std::string&)>& tell = {});

private:
    bool runOnce();
    void prepare();
    void quicken(std::optional<double> jump = std::nullopt) const;
    void live(CallGuard* guard);
    void playToRest(CallGuard* guard);
    bool isAtRest() const { return tv.daemonEnd().has_value(); }
    bool said(const std::string& text) const;
    void waitForDelivery();
    void hitBoot();
    void afterHit(CallGuard& guard);
    void recover();

    void judgeFirmware(const char* when);
    void judgeKilled();
    bool hasAskedForReboot() const;
    bool isSubscribed(const char* event) const;
    void judgeFailing();
    void judgeEnd();
    tarnwick::Output runDoctor(const char* option);
    void judgeDoctor(LeftOver left, const char* when);
    void judgeMended();
    void judgeFiles();
    void judgeMessages();
    void breach(const char* promise, const std::string& text);
    void told(const std::string& text) const;

    tarnwick::Television tv;
    const CrashStory* story = nullptr;
    std::optional<Point> point;
    bool isExamined = false;
    double clockRate = 1;
    std::function<void(const std::string&)> tell;
    CrashOutcome outcome;
};

} // namespace proof

#endif
