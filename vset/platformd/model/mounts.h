// The loop mounts of the set, as its own /proc/mounts shows them.
#ifndef VSET_PLATFORMD_MODEL_MOUNTS_H
#define VSET_PLATFORMD_MODEL_MOUNTS_H

#include <glib.h>
#include <json/json.h>

#include "vset/platformd/event.h"

namespace vset
{

class Mounts
{
public:
    Mounts();
    ~Mounts();
    Mounts(const Mounts&) = delete;
    Mounts& operator=(const Mounts&) = delete;

    Json::Value snapshot() const;

    Event<> changed; // something was mounted or unmounted, a loop or not

private:
    static gboolean onChange(int file, GIOCondition condition, gpointer self);

    int file_;
    guint source_ = 0;
};

} // namespace vset

#endif
