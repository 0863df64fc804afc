#include "vset/console/web/web-server.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "common/glib-pointers.h"
#include "common/json-text.h"
#include "vset/console/web/early-answer.h"
#include "vset/platformd/guarded.h"

extern "C" { // generated for C
#include "console-page.h"
}

namespace vset
{

namespace
{

constexpr const char* kSocket = "/socket";
constexpr const char* kUploads = "/usb/";
constexpr common::JsonLimits kOrderLimits{65536, 8};
constexpr const char* kUploadOfRequest = "upload";    // what a request keeps its file under
constexpr goffset kMostUpload = UsbSlot::kMostOfFile; // bytes

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
        if (endsWith(path, known.extension)) {
            return known.type;
        }
    }
    return "application/octet-stream";
}

// The file that the request brings; null for all other requests.
StickFile* uploadOf(SoupServerMessage* message)
{
    return static_cast<StickFile*>(g_object_get_data(G_OBJECT(message), kUploadOfRequest));
}

void keepUpload(SoupServerMessage* message, std::unique_ptr<StickFile> file)
{
    g_object_set_data_full(G_OBJECT(message), kUploadOfRequest, file.release(),
                           [](gpointer kept) { delete static_cast<StickFile*>(kept); });
}

bool isUpload(SoupServerMessage* message)
{
    const std::string path = g_uri_get_path(soup_server_message_get_uri(message));
    return std::strcmp(soup_server_message_get_method(message), "PUT") == 0 && path.rfind(kUploads, 0) == 0;
}

// 0 when none is announced; nothing for what is no number. libsoup waits without an end for a body of "-1"
// bytes, or of more than 64 bits tell.
std::optional<goffset> announcedLength(SoupServerMessage* message)
{
    constexpr size_t kMostDigits = 18;
    const char* const announced =
        soup_message_headers_get_list(soup_server_message_get_request_headers(message), "Content-Length");
    if (announced == nullptr) {
        return 0;
    }
    const std::string digits = announced;
    const bool isNumber = !digits.empty() && digits.size() <= kMostDigits &&
                          digits.find_first_not_of("0123456789") == std::string::npos;
    return isNumber ? std::optional<goffset>(std::stoll(digits)) : std::nullopt;
}

bool isBodyToCome(SoupServerMessage* message)
{
    SoupMessageHeaders* const headers = soup_server_message_get_request_headers(message);
    return soup_message_headers_get_list(headers, "Transfer-Encoding") != nullptr ||
           announcedLength(message) != 0;
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
    // Over the loopback it costs more than it saves, and hides how much waits for a page.
    soup_server_remove_websocket_extension(server_, SOUP_TYPE_WEBSOCKET_EXTENSION_DEFLATE);
    soup_server_add_websocket_handler(server_, kSocket, origin.c_str(), nullptr, onPage, this, nullptr);
}

WebServer::~WebServer()
{
    for (const PageSocket& page : pages_) {
        g_signal_handlers_disconnect_by_data(page.connection(), this);
    }
    soup_server_disconnect(server_);
    g_object_unref(server_);
}

void WebServer::listen(unsigned int port)
{
    common::ErrorSlot error;
    if (soup_server_listen_local(server_, port, SOUP_SERVER_LISTEN_IPV4_ONLY, error.address()) == FALSE &&
        port != 0) {
        listen(0);
        return;
    }
    if (error.get() != nullptr) {
        throw std::runtime_error("the console cannot listen on 127.0.0.1: " + error.text());
    }
    GSList* const uris = soup_server_get_uris(server_);
    if (uris != nullptr) {
        port_ = static_cast<unsigned int>(g_uri_get_port(static_cast<GUri*>(uris->data)));
    }
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
    soup_message_body_set_accumulate(soup_server_message_get_request_body(message), FALSE);
    g_signal_connect(message, "got-headers", G_CALLBACK(onHeaders), self);
    g_signal_connect(message, "got-chunk", G_CALLBACK(onChunk), self);
}

std::optional<WebServer::Refusal> WebServer::refusalOf(SoupServerMessage* message) const
{
    const bool isRead = std::strcmp(soup_server_message_get_method(message), "GET") == 0 ||
                        std::strcmp(soup_server_message_get_method(message), "HEAD") == 0;
    if (!isForUs(message)) {
        return Refusal{SOUP_STATUS_FORBIDDEN, "This is " + url() + " and nothing else."};
    }
    if (!isRead && !isFromOurPage(message)) {
        return Refusal{SOUP_STATUS_FORBIDDEN, "Only the console's own page may do that."};
    }
    const auto length = announcedLength(message);
    if (!length) {
        return Refusal{SOUP_STATUS_BAD_REQUEST, "The Content-Length is no number of bytes."};
    }
    if (*length > kMostUpload) {
        return Refusal{SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE,
                       "The file is too large: a stick takes files of " + std::to_string(kMostUpload >> 20) +
                           " MiB."};
    }
    return isUpload(message) ? beginUpload(message) : std::nullopt;
}

std::optional<WebServer::Refusal> WebServer::beginUpload(SoupServerMessage* message) const
{
    // Decoded already.
    const std::string path = g_uri_get_path(soup_server_message_get_uri(message));
    UsbSlot::NewFile upload = handlers_.upload(path.substr(std::strlen(kUploads)));
    if (upload.file == nullptr) {
        return Refusal{SOUP_STATUS_BAD_REQUEST, upload.fault};
    }
    keepUpload(message, std::move(upload.file));
    return std::nullopt;
}

// What is refused ends here, whatever it asks for, and before its body comes.
void WebServer::onHeaders(SoupServerMessage* message, gpointer self)
{
    std::optional<Refusal> refusal;
    const bool isJudged =
        guarded("a request", [&] { refusal = static_cast<const WebServer*>(self)->refusalOf(message); });
    if (!isJudged) {
        refusal = Refusal{SOUP_STATUS_INTERNAL_SERVER_ERROR, "The console cannot do that now."};
    }
    if (!refusal) {
        return;
    }
    if (isBodyToCome(message)) {
        answerEarly(message, refusal->status, refusal->text + "\n");
    } else {
        answer(message, refusal->status, refusal->text + "\n");
    }
}

void WebServer::onChunk(SoupServerMessage* message, GBytes* chunk, gpointer)
{
    StickFile* const file = uploadOf(message);
    if (file == nullptr) {
        return;
    }
    gsize size = 0;
    const auto* const data = static_cast<const char*>(g_bytes_get_data(chunk, &size));
    if (const auto fault = file->write(data, size)) {
        answerEarly(message, SOUP_STATUS_REQUEST_ENTITY_TOO_LARGE, *fault + "\n");
    }
}

// ---- Requests ----

void WebServer::onRequest(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                          gpointer self)
{
    const auto* const server = static_cast<WebServer*>(self);
    const std::string method = soup_server_message_get_method(message);
    if (soup_server_message_get_status(message) != 0) {
        return;
    }
    if (StickFile* const file = uploadOf(message)) {
        const auto fault = file->finish();
        if (fault) {
            answer(message, SOUP_STATUS_BAD_REQUEST, *fault + "\n");
        } else {
            soup_server_message_set_status(message, SOUP_STATUS_NO_CONTENT, nullptr);
        }
    } else if (method == "GET" || method == "HEAD") {
        server->serveFile(message, path);
    } else {
        answer(message, SOUP_STATUS_METHOD_NOT_ALLOWED, "There is nothing to do that to.\n");
    }
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

// ---- Pages ----

void WebServer::onPage(SoupServer*, SoupServerMessage* request, const char*, SoupWebsocketConnection* page,
                       gpointer self)
{
    auto* const server = static_cast<WebServer*>(self);
    PageSocket& added = server->pages_.emplace_back(page, request);
    g_signal_connect(page, "message", G_CALLBACK(onMessage), self);
    g_signal_connect(page, "closed", G_CALLBACK(onClosed), self);
    guarded("the greeting of a page", [&] { added.send(common::compactJson(server->handlers_.greeting())); });
}

Json::Value WebServer::replyTo(std::string_view text) const
{
    Json::Value reply;
    reply["type"] = "reply";
    std::string why;
    const auto order = common::parseJsonObject(text, &why, kOrderLimits);
    if (!order) {
        reply["error"] = "an order is a JSON object: " + why;
        return reply;
    }
    reply["id"] = (*order)["id"];
    const auto fault = handlers_.order(*order);
    reply["error"] = fault ? Json::Value(*fault) : Json::Value();
    return reply;
}

void WebServer::onMessage(SoupWebsocketConnection* page, gint type, GBytes* message, gpointer self)
{
    if (type != SOUP_WEBSOCKET_DATA_TEXT) {
        return;
    }
    gsize size = 0;
    const auto* const data = static_cast<const char*>(g_bytes_get_data(message, &size));
    auto* const server = static_cast<WebServer*>(self);
    guarded("an order of a page", [&] {
        const std::string reply = common::compactJson(server->replyTo({data, size}));
        // By its name: the order may have made the set tell its pages something, and one of them be given up.
        for (PageSocket& known : server->pages_) {
            if (known.connection() == page) {
                known.send(reply);
            }
        }
    });
}

void WebServer::onClosed(SoupWebsocketConnection* page, gpointer self)
{
    static_cast<WebServer*>(self)->pages_.remove_if(
        [page](const PageSocket& known) { return known.connection() == page; });
}

void WebServer::tell(const Json::Value& message)
{
    const std::string text = common::compactJson(message);
    for (PageSocket& page : pages_) {
        page.send(text);
    }
}

} // namespace vset
