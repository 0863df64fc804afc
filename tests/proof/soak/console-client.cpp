#include "tests/proof/soak/console-client.h"

namespace proof
{

ConsoleClient::ConsoleClient(const std::string& url) : thread_([this, url] { serve(url); }) {}

ConsoleClient::~ConsoleClient()
{
    GSource* const end = g_idle_source_new(); // in the loop, whether it runs already or not
    g_source_set_callback(
        end,
        [](gpointer loop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        loop_, nullptr);
    g_source_attach(end, context_);
    thread_.join();
    g_source_unref(end);
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
}

void ConsoleClient::serve(const std::string& url)
{
    g_main_context_push_thread_default(context_);
    SoupSession* const session = soup_session_new();
    SoupMessage* const request = soup_message_new("GET", ("ws" + url.substr(4) + "socket").c_str());
    const std::string origin = url.substr(0, url.size() - 1);
    const auto connected = [](GObject* source, GAsyncResult* result, gpointer self) {
        auto& client = *static_cast<ConsoleClient*>(self);
        client.connection_ = soup_session_websocket_connect_finish(SOUP_SESSION(source), result, nullptr);
        if (client.connection_ == nullptr) {
            return;
        }
        soup_websocket_connection_set_max_incoming_payload_size(client.connection_, 0);
        const auto onMessage = +[](SoupWebsocketConnection*, int, GBytes*, gpointer me) {
            ++static_cast<ConsoleClient*>(me)->messages_;
        };
        const auto onClosed =
            +[](SoupWebsocketConnection*, gpointer me) { static_cast<ConsoleClient*>(me)->isOpen_ = false; };
        g_signal_connect(client.connection_, "message", G_CALLBACK(onMessage), self);
        g_signal_connect(client.connection_, "closed", G_CALLBACK(onClosed), self);
        client.isOpen_ = true;
    };
    GCancellable* const given = g_cancellable_new();
    soup_session_websocket_connect_async(session, request, origin.c_str(), nullptr, G_PRIORITY_DEFAULT, given,
                                         connected, this);
    g_main_loop_run(loop_);
    g_cancellable_cancel(given);
    while (g_main_context_iteration(context_, FALSE) != FALSE) {
    }
    g_clear_object(&connection_);
    g_object_unref(given);
    g_object_unref(request);
    soup_session_abort(session);
    g_object_unref(session);
    g_main_context_pop_thread_default(context_);
}

} // namespace proof
