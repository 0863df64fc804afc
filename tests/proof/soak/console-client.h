// The console's page, open: a web socket that reads all that it is told, on a thread of its own.
#ifndef TESTS_PROOF_SOAK_CONSOLE_CLIENT_H
#define TESTS_PROOF_SOAK_CONSOLE_CLIENT_H

#include <atomic>
#include <cstdint>
#include <libsoup/soup.h>
#include <string>
#include <thread>

namespace proof
{

class ConsoleClient
{
public:
    // As the console's address is told by the set: "http://127.0.0.1:PORT/". Connects at once; whether it
    // does is seen by isOpen().
    explicit ConsoleClient(const std::string& url);
    ~ConsoleClient();
    ConsoleClient(const ConsoleClient&) = delete;
    ConsoleClient& operator=(const ConsoleClient&) = delete;

    bool isOpen() const { return isOpen_; } // false before, and once the other side has closed
    uint64_t messages() const { return messages_; }

private:
    void serve(const std::string& url);

    GMainContext* context_ = g_main_context_new();
    GMainLoop* loop_ = g_main_loop_new(context_, FALSE);
    SoupWebsocketConnection* connection_ = nullptr; // of the thread
    std::atomic<bool> isOpen_{false};
    std::atomic<uint64_t> messages_{0};
    std::thread thread_;
};

} // namespace proof

#endif
