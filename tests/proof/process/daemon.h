// The daemon in this process, from its main on, with its own objects: started once, on the machine and the
// places of the test, and told the same events as the model.
#ifndef TESTS_PROOF_PROCESS_DAEMON_H
#define TESTS_PROOF_PROCESS_DAEMON_H

#include <functional>
#include <string>
#include <vector>

#include "tests/proof/process/television.h"

namespace proof::daemon
{

// Runs the daemon on the set, whose files lie below `root`; never returns. `next` is called on the main
// thread whenever everything waits, and once more after the service has ended. It applies the next event, or
// ends the process.
[[noreturn]] void run(const Television& television, const std::string& root, std::function<void()> next);

void apply(const std::string& event);
void note(const std::string& line); // in the trace; empty: only what was called until now
std::vector<std::string> takeTrace();
std::string status();
bool hasEnded();

} // namespace proof::daemon

#endif
