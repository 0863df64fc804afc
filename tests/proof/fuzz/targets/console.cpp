// What a page of the browser, or a program on the bus, tells the console: whole, from its socket on.
//
// A line is a message of the page, or with an exclamation mark before it a call of the console's interface:
// its name and its arguments, with tabulators between them.
#include "vset/console/console.h"

#include <libsoup/soup.h>

#include "common/json-text.h"
#include "console-interface.h"
#include "tests/proof/fuzz/private-bus.h"
#include "tests/proof/fuzz/target.h"

namespace
{

constexpr size_t kMostMessages = 20;

// A page in a browser that has opened the console, and stays.
class Page
{
public:
    explicit Page(const std::string& url)
        : origin_(url.substr(0, url.size() - 1)), session_(soup_session_new())
    {
        connect();
    }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    // Sends the message, and gives its reply.
    std::string tell(std::string_view message)
    {
        if (soup_websocket_connection_get_state(socket_) != SOUP_WEBSOCKET_STATE_OPEN) {
            g_object_unref(socket_);
            connect(); // the last message was one that no server takes
        }
        const common::GlibPointer<char> text(
            g_utf8_make_valid(message.data(), static_cast<gssize>(message.size())));
        reply_.clear();
        soup_websocket_connection_send_text(socket_, text.get());
        while (reply_.empty() && soup_websocket_connection_get_state(socket_) == SOUP_WEBSOCKET_STATE_OPEN) {
            g_main_context_iteration(nullptr, TRUE);
        }
        return reply_;
    }

private:
    void connect()
    {
        SoupMessage* const request = soup_message_new("GET", (origin_ + "/socket").c_str());
        soup_session_websocket_connect_async(session_, request, origin_.c_str(), nullptr, G_PRIORITY_DEFAULT,
                                             nullptr, onConnected, this);
        g_object_unref(request);
        socket_ = nullptr;
        while (socket_ == nullptr) {
            g_main_context_iteration(nullptr, TRUE);
        }
        g_signal_connect(socket_, "message", G_CALLBACK(onMessage), this);
    }

    static void onConnected(GObject* session, GAsyncResult* result, gpointer self)
    {
        static_cast<Page*>(self)->socket_ =
            soup_session_websocket_connect_finish(SOUP_SESSION(session), result, nullptr);
        fuzz::require(static_cast<Page*>(self)->socket_ != nullptr, "the console takes its page");
    }

    static void onMessage(SoupWebsocketConnection*, gint, GBytes* message, gpointer self)
    {
        gsize size = 0;
        const auto* const data = static_cast<const char*>(g_bytes_get_data(message, &size));
        const auto object = common::parseJsonObject({data, size});
        fuzz::require(object.has_value(), "a page is told JSON");
        if ((*object)["type"] == "reply") {
            static_cast<Page*>(self)->reply_.assign(data, size);
        }
    }

    std::string origin_;
    SoupSession* session_;
    SoupWebsocketConnection* socket_ = nullptr;
    std::string reply_;
};

// The set, its console and a page, which live as long as the process.
struct Stage {
    fuzz::PrivateBus bus;
    vset::SetModel set{bus.service(), false};
    vset::Console console{bus.service(), set};
    Page page{bus.ask(&org_pellor_platform_console_interface, "GetUrl")};
};

void make(Stage& stage, std::string_view line)
{
    if (line.empty() || line[0] != '!') {
        stage.page.tell(line);
        return;
    }
    line.remove_prefix(1);
    stage.bus.call(&org_pellor_platform_console_interface, ":1.1", line);
}

void run(std::string_view input)
{
    static auto* const stage = new Stage; // what is left at the end of a process is not torn down
    for (size_t messages = 0; messages < kMostMessages && !input.empty(); ++messages) {
        const size_t end = input.find('\n');
        make(*stage, input.substr(0, end));
        input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
    }
    const std::string json = stage->bus.ask(&org_pellor_platform_console_interface, "Snapshot");
    fuzz::require(common::parseJsonObject(json).has_value(), "the console can be shown");
    fuzz::require(stage->page.tell("{}").find("there is no order") != std::string::npos,
                  "the console goes on");
}

const fuzz::Target target("console", run);

} // namespace
