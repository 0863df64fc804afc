// The console's web server: on the loopback address only, and for its own page only.
//
// Every request must name the server as the page does (Host), so that no name of somebody else's can be
// pointed at it; a WebSocket or an upload must come from the page itself (Origin). What others may fetch are
// the page's own files, which are no secret.
//
// What a request carries is never kept in memory: an upload goes to its file as it comes, all else is
// dropped.
#ifndef VSET_CONSOLE_WEB_WEB_SERVER_H
#define VSET_CONSOLE_WEB_WEB_SERVER_H

#include <functional>
#include <json/json.h>
#include <libsoup/soup.h>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "vset/console/usb-slot.h"
#include "vset/console/web/page-socket.h"

namespace vset
{

class WebServer
{
public:
    struct Handlers {
        std::function<Json::Value()> greeting; // what a page that connects is told first
        // An order of a page: the text of what is wrong with it, or nothing.
        std::function<std::optional<std::string>(const Json::Value& order)> order;
        std::function<UsbSlot::NewFile(const std::string& name)> upload; // a file of a USB stick
    };

    // Listens on `port`, or on any free one when that is taken or 0. Throws std::runtime_error.
    WebServer(unsigned int port, Handlers handlers);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    unsigned int port() const { return port_; }
    std::string url() const { return "http://" + host_ + "/"; }
    bool hasPages() const { return !pages_.empty(); }

    // Tells every connected page.
    void tell(const Json::Value& message);

private:
    static void onRequestStarted(SoupServer* server, SoupServerMessage* message, gpointer self);
    static void onHeaders(SoupServerMessage* message, gpointer self);
    static void onChunk(SoupServerMessage* message, GBytes* chunk, gpointer self);
    static void onRequest(SoupServer* server, SoupServerMessage* message, const char* path, GHashTable* query,
                          gpointer self);
    static void onPage(SoupServer* server, SoupServerMessage* message, const char* path,
                       SoupWebsocketConnection* page, gpointer self);
    static void onMessage(SoupWebsocketConnection* page, gint type, GBytes* message, gpointer self);
    static void onClosed(SoupWebsocketConnection* page, gpointer self);

    struct Refusal {
        guint status;
        std::string text;
    };

    void listen(unsigned int port);
    std::optional<Refusal> refusalOf(SoupServerMessage* message) const;
    std::optional<Refusal> beginUpload(SoupServerMessage* message) const;
    Json::Value replyTo(std::string_view text) const;
    bool isForUs(SoupServerMessage* message) const;
    bool isFromOurPage(SoupServerMessage* message) const;
    void serveFile(SoupServerMessage* message, const std::string& path) const;
    Handlers handlers_;
    SoupServer* server_;
    unsigned int port_ = 0;
    std::string host_; // "127.0.0.1:PORT"
    std::list<PageSocket> pages_;
};

} // namespace vset

#endif
