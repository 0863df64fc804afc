// Threads, waits and clock of this process, in the test's hands: what the daemon and its libraries create as
// threads are contexts that take turns, and what they wait for ends when the test's clock says so. So a run
// is the same every time, an hour takes no longer than what happens in it, and, as the process has one thread
// only, fork() copies it whole in the middle of a run.
//
// Calls of the C library are taken over by their names (machine.cpp): nothing of the daemon knows of it.
// Before start() they do what they always do.
#ifndef TESTS_PROOF_PROCESS_MACHINE_H
#define TESTS_PROOF_PROCESS_MACHINE_H

#include <cstdint>
#include <functional>
#include <string>

namespace proof::machine
{

enum class Threads { kLazy, kEager, kStalled }; // as in model/model.h

constexpr int64_t kMillisecond = 1000000; // the clock counts nanoseconds

// From now on. `idle` is called on the main thread whenever everything waits: it does the next thing, or
// never returns. `note` is told of semaphore calls.
void start(std::function<void()> idle, std::function<void(const std::string&)> note);
bool isStarted();

// Runs the main thread's body where nobody stands around it: an exception that it lets out meets no handler
// of the test's, and ends the process as it would end a program.
[[noreturn]] void runMain(void (*body)());

void setThreads(Threads mode);
void advance(int64_t duration); // before `idle` is called again, with everything that is due meanwhile
void jumpToSecond(int seconds); // at once, to a whole second
int semaphoreValue();
void failThread();    // the next one cannot be started
void failSemaphore(); // nor opened

// For a thread of the daemon, within a control library.
void sleep(int64_t duration);
void hang();
void freeHanging();

} // namespace proof::machine

#endif
