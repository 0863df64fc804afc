// Threads that nobody waits for, and what is done where nobody stands above.
#ifndef FW_UPDATE_THREAD_H
#define FW_UPDATE_THREAD_H

#include <cxxabi.h>
#include <exception>
#include <thread>
#include <utility>

#include "tarnwick.h"

// Runs `body` where an exception would end the process past its one exit: at the bottom of a thread, and in
// what C code calls. What nobody has caught (memory that is short, a listing that fails) ends the service as
// every other way does; locks and the semaphore are given back on the way here. True: there was none.
template <typename Body>
bool runToTheEnd(const Body& body)
{
    try {
        body();
        return true;
    } catch (const abi::__forced_unwind&) {
        throw; // a library has ended this thread
    } catch (...) {
        service_finalize();
        return false; // another thread is at it
    }
}

// Runs `body` on a thread of its own. False when the system has none to give: nothing runs then, and nothing
// is thrown, because the caller may stand on a callback of C code.
template <typename Body>
bool startThread(Body body)
{
    try {
        std::thread([body = std::move(body)] { runToTheEnd(body); }).detach();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

#endif
