// Owners of what GLib hands out.
#ifndef TOOLS_FWCTL_GLIB_POINTER_H
#define TOOLS_FWCTL_GLIB_POINTER_H

#include <gio/gio.h>
#include <memory>

namespace fwctl
{

struct GlibRelease {
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(gpointer object) const { g_object_unref(object); }
};

using GVariantPointer = std::unique_ptr<GVariant, GlibRelease>;
template <typename Object>
using GObjectPointer = std::unique_ptr<Object, GlibRelease>;

} // namespace fwctl

#endif
