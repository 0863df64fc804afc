// Where GLib calls us: an exception must not pass through its C code, which would end the process and the
// set.
#ifndef VSET_PLATFORMD_GUARDED_H
#define VSET_PLATFORMD_GUARDED_H

#include <cstdio>
#include <exception>

#include "common/terminal/visible-text.h"

namespace vset
{

// Runs `action`. What it throws is told on stderr as the failure of `what`, and the service goes on.
template <typename Action>
bool guarded(const char* what, Action action) noexcept
{
    try {
        action();
        return true;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "platformd: %s failed: %s\n", what, common::visible(error.what()).c_str());
        return false;
    }
}

} // namespace vset

#endif
