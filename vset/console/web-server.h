// The console's web server: on the loopback address only, and for its own page only.
//
// Every request must name the server as the page does (Host), so that no name of somebody else's can be
// pointed at it; a WebSocket or an upload must come from the page itself (Origin). What others may fetch are
// the page's own files, which are no secret.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>
#include <libsoup/soup.h>

namespace vset
{

class WebServer
{
public:
    struct Handlers {
        std::function<Json::Value()> greeting; // what a page that connects is told first
        // An order of a page: the text of what is wrong with it, or nothing.
        std::function<std::optional<std::string>(const Json::Value& order)> order;
        // A file of a USB stick.
        std::function<std::optional<std::string>(const std::string& name, const char* data, size_t size)>
            upload;
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
    static void onRequest(SoupServer* server, SoupServerMessage* message, const char* path, GHashTable* query,
                          gpointer self);
    static void onPage(SoupServer* server, SoupServerMessage* message, const char* path,
                       SoupWebsocketConnection* page, gpointer self);
    static void onMessage(SoupWebsocketConnection* page, gint type, GBytes* message, gpointer self);
    static void onClosed(SoupWebsocketConnection* page, gpointer self);

    void listen(unsigned int port);
    bool isForUs(SoupServerMessage* message) const;
    bool isFromOurPage(SoupServerMessage* message) const;
    void serveFile(SoupServerMessage* message, const std::string& path) const;
    void takeUpload(SoupServerMessage* message, const std::string& path) const;

    Handlers handlers_;
    SoupServer* server_;
    unsigned int port_ = 0;
    std::string host_; // "127.0.0.1:PORT"
    std::vector<SoupWebsocketConnection*> pages_;
};

} // namespace vset
