// Owning pointers for what GLib counts or allocates, and its errors as exceptions.
#ifndef COMMON_GLIB_POINTERS_H
#define COMMON_GLIB_POINTERS_H

#include <gio/gio.h>
#include <memory>
#include <pwd.h>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace common
{

struct GlibDeleter {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(char* text) const { g_free(text); }
    void operator()(char** texts) const { g_strfreev(texts); }
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GIOStream* stream) const { g_object_unref(stream); }
    void operator()(GSocket* socket) const { g_object_unref(socket); }
    void operator()(GSocketConnection* connection) const { g_object_unref(connection); }
    void operator()(GCancellable* cancellable) const { g_object_unref(cancellable); }
    void operator()(GDateTime* time) const { g_date_time_unref(time); }
    void operator()(GDBusMessage* message) const { g_object_unref(message); }
    void operator()(GDBusMethodInvocation* invocation) const { g_object_unref(invocation); }
};

template <typename T>
using GlibPointer = std::unique_ptr<T, GlibDeleter>;
using GlibStrings = GlibPointer<char*>; // that end with a null pointer

// Takes the error that a GLib call may have left: throws its text, after the remote part was cut off.
class ErrorSlot
{
public:
    ErrorSlot() = default;
    ~ErrorSlot() { g_clear_error(&error_); }
    ErrorSlot(const ErrorSlot&) = delete;
    ErrorSlot& operator=(const ErrorSlot&) = delete;

    GError** address() { return &error_; }
    const GError* get() const { return error_; }

    std::string text() const
    {
        if (error_ == nullptr) {
            return "unknown error";
        }
        const GlibPointer<GError> copy(g_error_copy(error_));
        g_dbus_error_strip_remote_error(copy.get());
        return copy->message;
    }

private:
    GError* error_ = nullptr;
};

// The system bus, from inside of a set. Throws std::runtime_error with the reason why there is none.
inline GlibPointer<GDBusConnection> systemBus()
{
    ErrorSlot error;
    GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.address()));
    if (bus != nullptr) {
        return bus;
    }
    // It takes everybody's connection, and closes those of users that it does not know.
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE &&
        getpwuid(geteuid()) == nullptr) {
        throw std::runtime_error("the system bus refuses the user number " + std::to_string(geteuid()) +
                                 ", whom this set does not know");
    }
    throw std::runtime_error("there is no system bus: " + error.text());
}

} // namespace common

#endif
