#include "tests/proof/fuzz/private-bus.h"

#include <array>
#include <cstdlib>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "tests/proof/fuzz/target.h"
#include "vset/platformd/contract.h"

namespace fuzz
{

namespace
{

using Message = common::GlibPointer<GDBusMessage>;

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";

common::GlibPointer<GDBusConnection> connectionOver(int socket, unsigned int flags)
{
    const common::GlibPointer<GSocket> endpoint(g_socket_new_from_fd(socket, nullptr));
    const common::GlibPointer<GSocketConnection> stream(
        g_socket_connection_factory_create_connection(endpoint.get()));
    const bool isServer = (flags & G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER) != 0;
    const common::GlibPointer<char> guid(isServer ? g_dbus_generate_guid() : nullptr);
    return common::GlibPointer<GDBusConnection>(
        g_dbus_connection_new_sync(G_IO_STREAM(stream.get()), guid.get(),
                                   static_cast<GDBusConnectionFlags>(flags), nullptr, nullptr, nullptr));
}

// As the bus does it for a service: names it, takes what it listens to, numbers a client's process.
GVariant* answerOfBus(const std::string& question)
{
    if (question == "Hello") {
        return g_variant_new("(s)", ":1.0");
    }
    return question == "GetConnectionUnixProcessID" ? g_variant_new("(u)", static_cast<guint32>(getpid()))
                                                    : nullptr;
}

// On GIO's own thread.
GDBusMessage* onMessage(GDBusConnection* connection, GDBusMessage* message, gboolean isIncoming, gpointer)
{
    const bool isQuestion =
        isIncoming != FALSE && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (!isQuestion) {
        return message;
    }
    const Message question(message);
    const Message answer(g_dbus_message_new_method_reply(message));
    if (GVariant* const body = answerOfBus(g_dbus_message_get_member(message))) {
        g_dbus_message_set_body(answer.get(), body);
    }
    g_dbus_connection_send_message(connection, answer.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    return nullptr;
}

std::string_view takeWord(std::string_view& words)
{
    const size_t end = words.find('\t');
    const std::string_view word = words.substr(0, end);
    words.remove_prefix(end == std::string_view::npos ? words.size() : end + 1);
    return word;
}

GVariant* argumentFrom(const std::string& word, const char* type)
{
    switch (type[0]) {
    case 'i':
        return g_variant_new_int32(static_cast<gint32>(std::strtoll(word.c_str(), nullptr, 0)));
    case 'u':
        return g_variant_new_uint32(static_cast<guint32>(std::strtoull(word.c_str(), nullptr, 0)));
    case 'd':
        return g_variant_new_double(std::strtod(word.c_str(), nullptr));
    case 'b':
        return g_variant_new_boolean(word == "true" ? TRUE : FALSE);
    default: // a text, and the bus lets only UTF-8 pass
        return g_variant_new_take_string(g_utf8_make_valid(word.c_str(), -1));
    }
}

GVariant* argumentsFrom(std::string_view words, GDBusArgInfo** arguments)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (GDBusArgInfo** argument = arguments; argument != nullptr && *argument != nullptr; ++argument) {
        const std::string word(takeWord(words));
        g_variant_builder_add_value(&builder, argumentFrom(word, (*argument)->signature));
    }
    return g_variant_builder_end(&builder);
}

Message callTo(const GDBusInterfaceInfo* interface, const std::string& client, const char* method)
{
    Message message(g_dbus_message_new_method_call(nullptr, vset::kPlatformPath, interface->name, method));
    g_dbus_message_set_sender(message.get(), client.c_str());
    return message;
}

struct Answer {
    bool isThere = false;
    std::string text;
};

void onAnswer(GObject* connection, GAsyncResult* result, gpointer data)
{
    auto* const answer = static_cast<Answer*>(data);
    answer->isThere = true;
    const Message message(
        g_dbus_connection_send_message_with_reply_finish(G_DBUS_CONNECTION(connection), result, nullptr));
    require(message != nullptr, "the service answers");
    GVariant* const body = g_dbus_message_get_body(message.get());
    if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(s)")) != FALSE) {
        const char* text = nullptr;
        g_variant_get(body, "(&s)", &text);
        answer->text = text;
    }
}

} // namespace

PrivateBus::PrivateBus()
{
    std::array<int, 2> sockets{};
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "there is a socket");
    std::thread bus([&] { // each waits for the other one
        clients_ = connectionOver(sockets[1], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_SERVER |
                                                  G_DBUS_CONNECTION_FLAGS_DELAY_MESSAGE_PROCESSING);
        require(clients_ != nullptr, "there is a bus");
        g_dbus_connection_add_filter(clients_.get(), onMessage, nullptr, nullptr);
        g_dbus_connection_start_message_processing(clients_.get());
    });
    service_ = connectionOver(sockets[0], G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    bus.join();
    require(service_ != nullptr, "the service is on the bus");
    g_dbus_connection_set_exit_on_close(service_.get(), FALSE);
    g_dbus_connection_set_exit_on_close(clients_.get(), FALSE);
}

PrivateBus::~PrivateBus()
{
    g_dbus_connection_close_sync(clients_.get(), nullptr, nullptr);
    g_dbus_connection_close_sync(service_.get(), nullptr, nullptr);
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

void PrivateBus::call(const GDBusInterfaceInfo* interface, const std::string& client,
                      std::string_view words) const
{
    const std::string name(takeWord(words));
    const GDBusMethodInfo* const method =
        g_dbus_interface_info_lookup_method(const_cast<GDBusInterfaceInfo*>(interface), name.c_str());
    if (method == nullptr) {
        return;
    }
    const Message message = callTo(interface, client, method->name);
    g_dbus_message_set_body(message.get(), argumentsFrom(words, method->in_args));
    g_dbus_connection_send_message(clients_.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
}

std::string PrivateBus::ask(const GDBusInterfaceInfo* interface, const std::string& method) const
{
    const Message message = callTo(interface, ":1.0", method.c_str());
    Answer answer;
    g_dbus_connection_send_message_with_reply(clients_.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                              G_MAXINT, nullptr, nullptr, onAnswer, &answer);
    while (!answer.isThere) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return answer.text;
}

void PrivateBus::leave(const std::string& client) const
{
    const Message message(g_dbus_message_new_signal(kBusPath, kBus, "NameOwnerChanged"));
    g_dbus_message_set_sender(message.get(), kBus);
    g_dbus_message_set_body(message.get(), g_variant_new("(sss)", client.c_str(), client.c_str(), ""));
    g_dbus_connection_send_message(clients_.get(), message.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
}

} // namespace fuzz
