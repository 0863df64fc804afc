#include "vset/console/web/page-socket.h"

#include <cstdio>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace vset
{

namespace
{

// Of a message with `size` bytes, as a server frames it.
uint64_t framed(uint64_t size)
{
    const uint64_t header = size < 126 ? 2 : size <= 0xffff ? 4 : 10;
    return header + size;
}

} // namespace

PageSocket::PageSocket(SoupWebsocketConnection* connection, SoupServerMessage* request)
    : connection_(SOUP_WEBSOCKET_CONNECTION(g_object_ref(connection))),
      socket_(G_SOCKET(g_object_ref(soup_server_message_get_socket(request)))), before_(givenToKernel())
{
}

PageSocket::~PageSocket()
{
    g_object_unref(connection_);
    g_object_unref(socket_);
}

// libsoup does not tell how much it holds back; the kernel tells how much it got.
uint64_t PageSocket::givenToKernel() const
{
    const int file = g_socket_get_fd(socket_);
    int unacknowledged = 0;
    tcp_info information{};
    socklen_t size = sizeof information;
    if (ioctl(file, TIOCOUTQ, &unacknowledged) != 0 ||
        getsockopt(file, IPPROTO_TCP, TCP_INFO, &information, &size) != 0) {
        return before_ + sent_; // closed
    }
    return information.tcpi_bytes_acked + static_cast<uint64_t>(unacknowledged);
}

void PageSocket::send(const std::string& text)
{
    if (soup_websocket_connection_get_state(connection_) != SOUP_WEBSOCKET_STATE_OPEN) {
        return;
    }
    const uint64_t given = givenToKernel() - before_;
    if (sent_ > given && sent_ - given > kMostWaiting) {
        giveUp();
        return;
    }
    sent_ += framed(text.size());
    soup_websocket_connection_send_text(connection_, text.c_str());
}

// At once: a goodbye would wait behind what is not read.
void PageSocket::giveUp()
{
    fprintf(stderr, "platformd: a page of the console does not read what it is told; it is disconnected\n");
    g_socket_shutdown(socket_, TRUE, TRUE, nullptr);
}

} // namespace vset
