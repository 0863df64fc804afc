#include "vset/platformd/model/mounts.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <glib-unix.h>
#include <memory>
#include <mntent.h>
#include <unistd.h>

namespace vset
{

namespace
{

constexpr const char* kMounts = "/proc/self/mounts";

struct EndMounts {
    void operator()(FILE* file) const { endmntent(file); }
};

} // namespace

Mounts::Mounts() : file_(open(kMounts, O_RDONLY | O_CLOEXEC))
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
    const std::unique_ptr<FILE, EndMounts> table(setmntent(kMounts, "re"));
    mntent entry{};
    char text[8192];
    while (table != nullptr && getmntent_r(table.get(), &entry, text, sizeof text) != nullptr) {
        if (std::strncmp(entry.mnt_fsname, "/dev/loop", std::strlen("/dev/loop")) != 0) {
            continue;
        }
        Json::Value mount;
        mount["device"] = entry.mnt_fsname;
        mount["directory"] = entry.mnt_dir;
        mount["type"] = entry.mnt_type;
        mount["options"] = entry.mnt_opts;
        json.append(mount);
    }
    return json;
}

} // namespace vset
