#include "web-server.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "glib-pointers.h"

extern "C" { // generated for C
#include "console-page.h"
}

namespace vset
{

namespace
{

constexpr const char* kSocket = "/socket";
constexpr const char* kUploads = "/usb/";
constexpr goffset kMostUpload = goffset{256} << 20; // bytes of one file

struct FileType {
    const char* extension;
    const char* type;
};
constexpr FileType kFileTypes[] = {
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
};

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

const char* typeOf(const std::string& path)
{
    for (const FileType& known : kFileTypes) {
        if (endsWith(path, known.extension))
            return known.type;
    }
    return "application/octet-stream";
}

std::string toText(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, value);
}

void answer(SoupServerMessage* message, guint status, const std::string& text)
{
    soup_server_message_set_status(message, status, nullptr);
    soup_server_message_set_response(message, "text/plain; charset=utf-8", SOUP_MEMORY_COPY, text.c_str(),
                                     text.size());
}

} // namespace

WebServer::WebServer(unsigned int port, Handlers handlers)
    : handlers_(std::move(handlers)), server_(soup_server_new("server-header", "vset", nullptr))
{
    console_page_register_resource();
    listen(port);
    host_ = "127.0.0.1:" + std::to_string(port_);
    std::string origin = "http://" + host_;
    g_signal_connect(server_, "request-started", G_CALLBACK(onRequestStarted), this);
    soup_server_add_handler(server_, nullptr, onRequest, this, nullptr);
    soup_server_add_websocket_handler(server_, kSocket, origin.c_str(), nullptr, onPage, this, nullptr);
}

WebServer::~WebServer()
{
    for (SoupWebsocketConnection* page : pages_) {
        g_signal_handlers_disconnect_by_data(page, this);
        g_object_unref(page);
    }
    soup_server_disconnect(server_);
    g_object_unref(server_);
}

void WebServer::listen(unsigned int port)
{
    ErrorSlot error;
    if (soup_server_listen_local(server_, port, SOUP_SERVER_LISTEN_IPV4_ONLY, error.address()) == FALSE &&
        port != 0) {
        listen(0);
        return;
    }
    if (error.get() != nullptr)
        throw std::runtime_error("the console cannot listen on 127.0.0.1: " + error.text());
    GSList* const uris = soup_server_get_uris(server_);
    if (uris != nullptr)
        port_ = static_cast<unsigned int>(g_uri_get_port(static_cast<GUri*>(uris->data)));
    g_slist_free_full(uris, reinterpret_cast<GDestroyNotify>(g_uri_unref));
}

// ---- Who may ask ----

bool WebServer::isForUs(SoupServerMessage* message) const
{
    const char* const host =
        soup_message_headers_get_one(soup_server_message_get_request_headers(message), "Host");
    return host != nullptr && host_ == host;
}

bool WebServer::isFromOurPage(SoupServerMessage* message) const
{
    const char* const origin =
        soup_message_headers_get_one(soup_server_message_get_request_headers(message), "Origin");
    return origin != nullptr && "http://" + host_ == origin;
}

void WebServer::onRequestStarted(SoupServer*, SoupServerMessage* message, gpointer self)
{
    g_signal_connect(message, "got-headers", G_CALLBACK(onHeaders), self);
}

// A status that is set here ends the request, whatever it asks for.
void WebServer::onHeaders(SoupServerMessage* message, gpointer self)
{
    const auto* const server = static_cast<WebServer*>(self);
    const goffset length =
        soup_message_headers_get_content_length(soup_server_message_get_request_headers(message));
    const bool isRead = std::strcmp(soup_server_message_get_method(message), "GET") == 0 ||
                        std::strcmp(soup_server_message_get_method(message), "HEAD") == 0;
    if (!server->isForUs(message))
        answer(message, SOUP_STATUS_FORBIDDEN, "This is " + server->url() + " and nothing else.\n");
    else if (!isRead && !server->isFromOurPage(message))
        answer(message, SOUP_STATUS_FORBIDDEN, "Only the console's own page may do that.\n");
    else if (length > kMostUpload)
        answer(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, "The file is too large.\n");
}

// ---- Requests ----

void WebServer::onRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                          gpointer self)
{
    const auto* const server = static_cast<WebServer*>(self);
    const std::string method = soup_server_message_get_method(message);
    if (soup_server_message_get_status(message) != 0)
        return;
    if (method == "PUT" && std::string(path).rfind(kUploads, 0) == 0)
        server->takeUpload(message, path);
    else if (method == "GET" || method == "HEAD")
        server->serveFile(message, path);
    else
        answer(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "There is nothing to do that to.\n");
}

void WebServer::serveFile(SoupServerMessage* message, const std::string& path) const
{
    if (path == "/favicon.ico") {
        soup_server_message_set_status(message, SOUP_STATUS_NO_CONTENT, nullptr);
        return;
    }
    const std::string name = path == "/" ? "/index.html" : path;
    GBytes* const file = g_resource_lookup_data(console_page_get_resource(), ("/console" + name).c_str(),
                                                G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (file == nullptr) {
        answer(message, SOUP_STATUS_NOT_FOUND, "There is no such page; the console is at " + url() + "\n");
        return;
    }
    SoupMessageHeaders* const headers = soup_server_message_get_response_headers(message);
    const std::string policy =
        "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
        "connect-src 'self' ws://" +
        host_ + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";
    soup_message_headers_replace(headers, "Content-Security-Policy", policy.c_str());
    soup_message_headers_replace(headers, "X-Content-Type-Options", "nosniff");
    soup_message_headers_replace(headers, "Referrer-Policy", "no-referrer");
    soup_message_headers_replace(headers, "Cache-Control", "no-store");
    soup_message_headers_replace(headers, "Cross-Origin-Resource-Policy", "same-origin");
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    soup_server_message_set_response(message, typeOf(name), SOUP_MEMORY_COPY,
                                     static_cast<const char*>(g_bytes_get_data(file, nullptr)),
                                     g_bytes_get_size(file));
    g_bytes_unref(file);
}

void WebServer::takeUpload(SoupServerMessage* message, const std::string& path) const
{
    const SoupMessageBody* const body = soup_server_message_get_request_body(message);
    const std::string name = path.substr(std::strlen(kUploads)); // decoded already
    const auto fault = handlers_.upload(name, body->data, static_cast<size_t>(body->length));
    if (fault)
        answer(message, SOUP_STATUS_BAD_REQUEST, *fault + "\n");
    else
        soup_server_message_set_status(message, SOUP_STATUS_NO_CONTENT, nullptr);
}

// ---- Pages ----

void WebServer::onPage(SoupServer*, SoupServerMessage*, const char*, SoupWebsocketConnection* page,
                       gpointer self)
{
    auto* const server = static_cast<WebServer*>(self);
    g_object_ref(page);
    server->pages_.push_back(page);
    g_signal_connect(page, "message", G_CALLBACK(onMessage), self);
    g_signal_connect(page, "closed", G_CALLBACK(onClosed), self);
    soup_websocket_connection_send_text(page, toText(server->handlers_.greeting()).c_str());
}

void WebServer::onMessage(SoupWebsocketConnection* page, gint type, GBytes* message, gpointer self)
{
    if (type != SOUP_WEBSOCKET_DATA_TEXT)
        return;
    gsize size = 0;
    const auto* const data = static_cast<const char*>(g_bytes_get_data(message, &size));
    std::istringstream text(std::string(data, size));
    Json::Value order;
    std::string errors;
    Json::Value reply;
    reply["type"] = "reply";
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &order, &errors) || !order.isObject()) {
        reply["error"] = "an order is a JSON object";
    } else {
        reply["id"] = order["id"];
        const auto fault = static_cast<WebServer*>(self)->handlers_.order(order);
        reply["error"] = fault ? Json::Value(*fault) : Json::Value();
    }
    if (soup_websocket_connection_get_state(page) == SOUP_WEBSOCKET_STATE_OPEN)
        soup_websocket_connection_send_text(page, toText(reply).c_str());
}

void WebServer::onClosed(SoupWebsocketConnection* page, gpointer self)
{
    auto& pages = static_cast<WebServer*>(self)->pages_;
    const auto found = std::find(pages.begin(), pages.end(), page);
    if (found == pages.end())
        return;
    pages.erase(found);
    g_object_unref(page);
}

void WebServer::tell(const Json::Value& message)
{
    const std::string text = toText(message);
    for (SoupWebsocketConnection* page : std::vector<SoupWebsocketConnection*>(pages_)) {
        if (soup_websocket_connection_get_state(page) == SOUP_WEBSOCKET_STATE_OPEN)
            soup_websocket_connection_send_text(page, text.c_str());
    }
}

} // namespace vset
