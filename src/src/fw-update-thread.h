// Threads that nobody waits for.
#ifndef FW_UPDATE_THREAD_H
#define FW_UPDATE_THREAD_H

#include <exception>
#include <thread>
#include <utility>

// Runs `body` on a thread of its own. False when the system has none to give: nothing runs then, and nothing
// is thrown, because the caller may stand on a callback of C code.
template <typename Body>
bool startThread(Body body)
{
    try {
        std::thread(std::move(body)).detach();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

#endif
