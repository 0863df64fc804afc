// Owning pointers for what GLib counts or allocates, and its errors as exceptions.
#ifndef COMMON_GLIB_POINTERS_H
#define COMMON_GLIB_POINTERS_H

#include <gio/gio.h>
#include <memory>
#include <stdexcept>
#include <string>

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
    void operator()(GSocket* socket) const { g_object_unref(socket); }
    void operator()(GSocketConnection* connection) const { g_object_unref(connection); }
    void operator()(GCancellable* cancellable) const { g_object_unref(cancellable); }
    void operator()(GDateTime* time) const { g_date_time_unref(time); }
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

} // namespace common

#endif
