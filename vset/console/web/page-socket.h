// The socket to one page, which is closed when the page does not read what it is told.
#ifndef VSET_CONSOLE_WEB_PAGE_SOCKET_H
#define VSET_CONSOLE_WEB_PAGE_SOCKET_H

#include <cstddef>
#include <cstdint>
#include <libsoup/soup.h>
#include <string>

namespace vset
{

class PageSocket
{
public:
    // Bytes that may wait in this process, beside what the kernel keeps for the connection; a greeting has
    // some hundred thousand.
    static constexpr uint64_t kMostWaiting = uint64_t{4} << 20;

    // `request` is the one that `connection` came of; messages must not be compressed.
    PageSocket(SoupWebsocketConnection* connection, SoupServerMessage* request);
    ~PageSocket();
    PageSocket(const PageSocket&) = delete;
    PageSocket& operator=(const PageSocket&) = delete;

    SoupWebsocketConnection* connection() const { return connection_; }

    // Nothing happens on a socket that is closing. The "closed" signal of the connection follows when the
    // page was given up.
    void send(const std::string& text);

private:
    uint64_t givenToKernel() const;
    void giveUp();

    SoupWebsocketConnection* connection_;
    GSocket* socket_;
    uint64_t before_ = 0; // bytes on the connection before the first message
    uint64_t sent_ = 0;   // bytes of all messages since
};

} // namespace vset

#endif
