// What happens to a set while calls fail, in one process with a fake platform: the sets, and the events of
// each.
#ifndef TESTS_PROOF_FAILURES_STORIES_H
#define TESTS_PROOF_FAILURES_STORIES_H

#include <string>
#include <vector>

#include "tests/proof/process/television.h"

namespace proof
{

struct Story {
    const char* name;
    const char* summary;
    Television television;
    // Those of the process (daemon.h), and "stick:all" and "stick:alpha": another program of the set has the
    // modules updated from the stick. Behind them the set is switched off.
    std::vector<std::string> events;
    // What is called and said when nothing fails, in this order and by parts of the lines; "!": nowhere.
    std::vector<std::string> milestones;
    bool isCut = false;         // the service ends in the middle of an update
    bool hasStick = false;      // with encrypted images and plain ones
    bool areNodesTaken = false; // every loop node is in use
};

const std::vector<Story>& stories();
const Story& storyNamed(const std::string& name); // std::invalid_argument: there is none

// Writes the set below the directory.
void prepare(const Story& story, const std::string& directory);

// Whatever it is; the events of the process among them.
void applyEvent(const std::string& event);

// How a control library is told that it has the stick's image whole (control-calls.h).
std::string wholeImage();

} // namespace proof

#endif
