#include "vset/platformd/model/mounts.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include "common/process/mount-table.h"

namespace vset
{

Mounts::Mounts() : file_(open(common::kMountTable, O_RDONLY | O_CLOEXEC))
{
    // The kernel marks the file as in error whenever the table has changed since the last look.
    if (file_ >= 0) {
        source_ = g_unix_fd_add(file_, static_cast<GIOCondition>(G_IO_PRI | G_IO_ERR), onChange, this);
    }
}

Mounts::~Mounts()
{
    if (source_ != 0) {
        g_source_remove(source_);
    }
    if (file_ >= 0) {
        close(file_);
    }
}

gboolean Mounts::onChange(int, GIOCondition, gpointer self)
{
    static_cast<Mounts*>(self)->changed.tell();
    return G_SOURCE_CONTINUE;
}

Json::Value Mounts::snapshot() const
{
    Json::Value json = Json::arrayValue;
    for (const common::Mount& entry : common::mountTable()) {
        if (entry.device.rfind("/dev/loop", 0) != 0) {
            continue;
        }
        Json::Value mount;
        mount["device"] = entry.device;
        mount["directory"] = entry.directory;
        mount["type"] = entry.type;
        mount["options"] = entry.options;
        json.append(mount);
    }
    return json;
}

} // namespace vset
