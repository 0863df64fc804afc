#include "vset/console/web/early-answer.h"

#include <array>
#include <memory>

#include "common/glib-pointers.h"

namespace vset
{

namespace
{

constexpr guint kMostSilence = 2;                             // seconds without a byte
constexpr gint64 kMostTime = gint64{10} * G_TIME_SPAN_SECOND; // for a client that sends and sends

struct Farewell {
    Farewell() = default;
    ~Farewell() { g_io_stream_close(connection.get(), nullptr, nullptr); } // libsoup may keep a reference
    Farewell(const Farewell&) = delete;
    Farewell& operator=(const Farewell&) = delete;

    common::GlibPointer<GIOStream> connection;
    common::GlibPointer<GSocket> socket;
    std::string answer;
    gint64 end = 0; // in g_get_monotonic_time()
    std::array<char, 65536> dropped;
};

std::string answerOf(guint status, const std::string& text)
{
    return "HTTP/1.1 " + std::to_string(status) + " " + soup_status_get_phrase(status) +
           "\r\nServer: vset\r\nConnection: close\r\nContent-Type: text/plain; charset=utf-8\r\n"
           "Content-Length: " +
           std::to_string(text.size()) + "\r\n\r\n" + text;
}

// Its end closes the connection.
void dropMore(std::unique_ptr<Farewell> farewell)
{
    GInputStream* const input = g_io_stream_get_input_stream(farewell->connection.get());
    Farewell* const data = farewell.release();
    g_input_stream_read_async(
        input, data->dropped.data(), data->dropped.size(), G_PRIORITY_LOW, nullptr,
        [](GObject* stream, GAsyncResult* result, gpointer kept) {
            std::unique_ptr<Farewell> mine(static_cast<Farewell*>(kept));
            const gssize size = g_input_stream_read_finish(G_INPUT_STREAM(stream), result, nullptr);
            if (size > 0 && g_get_monotonic_time() < mine->end) {
                dropMore(std::move(mine));
            }
        },
        data);
}

} // namespace

void answerEarly(SoupServerMessage* message, guint status, const std::string& text)
{
    auto farewell = std::make_unique<Farewell>();
    farewell->socket.reset(G_SOCKET(g_object_ref(soup_server_message_get_socket(message))));
    farewell->connection.reset(soup_server_message_steal_connection(message));
    farewell->answer = answerOf(status, text);
    farewell->end = g_get_monotonic_time() + kMostTime;
    g_socket_set_timeout(farewell->socket.get(), kMostSilence);
    GOutputStream* const output = g_io_stream_get_output_stream(farewell->connection.get());
    Farewell* const data = farewell.release();
    g_output_stream_write_all_async(
        output, data->answer.data(), data->answer.size(), G_PRIORITY_DEFAULT, nullptr,
        [](GObject* stream, GAsyncResult* result, gpointer kept) {
            std::unique_ptr<Farewell> mine(static_cast<Farewell*>(kept));
            if (g_output_stream_write_all_finish(G_OUTPUT_STREAM(stream), result, nullptr, nullptr) !=
                    FALSE &&
                g_socket_shutdown(mine->socket.get(), FALSE, TRUE, nullptr) != FALSE) {
                dropMore(std::move(mine));
            }
        },
        data);
}

} // namespace vset
